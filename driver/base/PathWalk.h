// Opening a path part by part, so that it is known which links it takes and where it leads.
#ifndef DRIVER_PATH_WALK_H
#define DRIVER_PATH_WALK_H

#include "Fd.h"

#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>

// Which links may lead to a file.
enum class ELinks
{
    All,
    Trusted // those that only root or the user of this process can have made
};

// One opening, which may have to go on elsewhere: on a thread where the next file system may block.
class CPathWalk
{
public:
    enum class EEnd
    {
        Opened,
        Failed,
        Elsewhere // a link leads to what isHere does not hold for: to path(), where run is to be called again
    };
    using HereFunction = std::function<bool(const std::string& strPath)>;

    CPathWalk(std::string strPath, ELinks eLinks);

    // Opens the file with the flags of open, and without ever waiting for what is no regular file. What is created
    // gets mode 0666 less the umask. Anything but a regular file is an error, and so is, where links are looked at,
    // a file that is to be written and that others can have given a second name. strError is without the path.
    EEnd run(int nFlags, const HereFunction& isHere, CFd& fd, struct stat& status, std::string& strError);

    const std::string& path() const { return m_strPath; }

    // After a failure: the system's error, 0 where it has none.
    int error() const { return m_nError; }

private:
    using Step = std::optional<EEnd>; // none: there is more to do

    EEnd fail(int nError, std::string& strError);
    bool begin();
    std::string nextPart();
    Step enter(const std::string& strPart, const HereFunction& isHere, std::string& strError);
    Step openLast(const std::string& strPart, int nFlags, const HereFunction& isHere, CFd& fd, struct stat& status,
                  std::string& strError);
    Step follow(const CFd& fdLink, const struct stat& link, const std::string& strPart, const HereFunction& isHere,
                std::string& strError);
    bool mayOthersPutNames() const;

    std::string m_strPath;
    const ELinks m_eLinks;
    int m_nLinks = 0;
    int m_nError = 0;
    CFd m_fdFolder;        // where the walk has come to
    std::string m_strDone; // its path, without links
    std::string m_strRest; // what is left of the path behind it
};

#endif
