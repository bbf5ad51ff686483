// Owners by name: which connection speaks for each, and for how long one that lost its connection keeps what it has.
#ifndef JSON_OWNERS_H
#define JSON_OWNERS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// Of the things that are owned this knows nothing: each carries the name of its owner. Not thread-safe.
class CJsonOwners
{
public:
    using ConnectionID = uint64_t;
    using TimePoint = std::chrono::steady_clock::time_point;

    explicit CJsonOwners(std::chrono::milliseconds grace = std::chrono::seconds(10)) : m_grace(grace) {}

    // From now on the connection speaks for the owner, whether that one is new, has lost its connection, or
    // still has another one, which is then the result and speaks for nobody. A connection speaks for one owner:
    // false in bAttached, and nothing changes, when it does for another one.
    std::optional<ConnectionID> attach(const std::string& strOwner, ConnectionID nConnection, bool& bAttached);

    // Nothing for a connection that is not attached, for an owner whose connection is lost.
    std::optional<std::string> ownerOf(ConnectionID nConnection) const;
    std::optional<ConnectionID> connectionOf(const std::string& strOwner) const;

    // The connection is gone; its owner has the time of grace from now on.
    void lost(ConnectionID nConnection, TimePoint now);

    // The owners whose grace has passed. They are not known any more: whatever is theirs has to go now.
    std::vector<std::string> takeExpired(TimePoint now);
    // When the next one's passes; nothing when nobody is waited for.
    std::optional<TimePoint> nextExpiry() const;

private:
    struct COwner
    {
        std::optional<ConnectionID> m_nConnection;
        TimePoint m_expiry;
    };

    const std::chrono::milliseconds m_grace;
    std::map<std::string, COwner> m_mapOwnerByName;
    std::map<ConnectionID, std::string> m_mapNameByConnection;
};

#endif
