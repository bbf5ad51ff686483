// The media driver, as far as legs of calls see it.
#ifndef SIP_MEDIA_DRIVER_H
#define SIP_MEDIA_DRIVER_H

#include <nlohmann/json.hpp>

#include <functional>
#include <string>

struct CLegName
{
    std::string m_strCall;
    unsigned m_uLeg = 1;

    friend bool operator==(const CLegName&, const CLegName&) = default;
    friend auto operator<=>(const CLegName&, const CLegName&) = default;
};

class CMediaDriver
{
public:
    // The answer's fields with "ok"; a connection that is lost answers, too.
    using Answer = std::function<void(const nlohmann::json& answer)>;

    virtual ~CMediaDriver() = default;

    virtual void request(const char* pName, const CLegName& leg, nlohmann::ordered_json fields, Answer answer) = 0;
};

#endif
