// CNodePool: keeps the nodes of entries that leave a map for those that enter it next.
#ifndef NODE_POOL_H
#define NODE_POOL_H

#include <array>
#include <cstddef>
#include <utility>

// Without it each command would have nodes allocated by the thread that sends it and freed by the event
// thread, which costs an allocator more than all that is done with them. Guarded by the map's lock.
template <class MAP> class CNodePool
{
public:
    typedef typename MAP::iterator iterator;
    typedef typename MAP::key_type key_type;
    typedef typename MAP::mapped_type mapped_type;
    typedef typename MAP::node_type node_type;

    // Enters a pair, before itNext where that fits, after all of its key otherwise. Throws
    // std::bad_alloc with the map as it was.
    iterator insert(MAP& map, iterator itNext, key_type key, mapped_type value)
    {
        return m_nNodes == 0 ? map.emplace_hint(itNext, key, value) : map.insert(itNext, take(key, value));
    }
    iterator insert(MAP& map, key_type key, mapped_type value)
    {
        return m_nNodes == 0 ? map.emplace(key, value) : map.insert(take(key, value));
    }

    void erase(MAP& map, iterator it)
    {
        if (m_nNodes < m_aNodes.size())
            m_aNodes[m_nNodes++] = map.extract(it);
        else
            map.erase(it);
    }

    // Frees what is kept.
    void clear()
    {
        while (m_nNodes > 0)
            m_aNodes[--m_nNodes] = node_type();
    }

private:
    node_type take(key_type key, mapped_type value)
    {
        node_type node = std::move(m_aNodes[--m_nNodes]);
        node.key() = key;
        node.mapped() = value;
        return node;
    }

    std::array<node_type, 256> m_aNodes; // the first m_nNodes of them
    size_t m_nNodes = 0;
};

#endif
