// The media driver, as far as legs of calls see it.
#ifndef SIP_MEDIA_DRIVER_H
#define SIP_MEDIA_DRIVER_H

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <tuple>

struct CLegName
{
    std::string m_strCall;
    unsigned m_uLeg = 1;

    friend bool operator==(const CLegName&, const CLegName&) = default;
    friend bool operator<(const CLegName& a, const CLegName& b)
    {
        return std::tie(a.m_strCall, a.m_uLeg) < std::tie(b.m_strCall, b.m_uLeg);
    }
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
