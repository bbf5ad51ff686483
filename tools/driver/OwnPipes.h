// COwnPipes: the two pipes of this process. The library leaves them in /tmp at the end; zelmedia does not.
#ifndef OWN_PIPES_H
#define OWN_PIPES_H

#include <string>

// To be made before the first CZelMediaServices, and to live until the process has done with it.
class COwnPipes
{
public:
    // Removes what an earlier process of this id has left. Throws CToolError when something else is in
    // the way.
    COwnPipes();
    ~COwnPipes(); // removes the pipes
    COwnPipes(const COwnPipes&) = delete;
    COwnPipes& operator=(const COwnPipes&) = delete;

    const std::string& responsePipe() const { return m_strResponse; }
    const std::string& eventPipe() const { return m_strEvent; }

    // From here on SIGHUP, SIGINT and SIGTERM remove the pipes and end the process with 128 and the number
    // of the signal.
    void removeOnSignals() const;

private:
    const std::string m_strResponse;
    const std::string m_strEvent;
};

#endif
