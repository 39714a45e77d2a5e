#pragma once
// The ring the socket's read and write queues keep their requests on.

#include <cstddef>
#include <utility>
#include <vector>

//! A first-in first-out queue on a ring of slots: pushing reuses the slots
//! that popping freed, so a queue that stays short never allocates. A popped
//! slot is emptied with T::clear() (its resources go at once) and filled in
//! place by the next emplace_back(). Pushing may move the items: references
//! into the queue don't survive an emplace_back().
template<typename T> class AsyncSocketQueue
{
public:
    AsyncSocketQueue() : m_slots(16), m_mask(15) {}

    bool empty() const { return m_count == 0; }
    size_t size() const { return m_count; }
    T &front() { return m_slots[m_head]; }
    const T &front() const { return m_slots[m_head]; }
    T &operator[](size_t i) { return m_slots[(m_head + i) & m_mask]; }
    const T &operator[](size_t i) const { return m_slots[(m_head + i) & m_mask]; }

    //! The new last item, empty, to be filled in place.
    T &emplace_back()
    {
        if (m_count > m_mask)
            grow();
        T &slot = m_slots[(m_head + m_count) & m_mask];
        ++m_count;
        return slot;
    }
    void pop_front()
    {
        m_slots[m_head].clear();
        m_head = (m_head + 1) & m_mask;
        --m_count;
    }
    void clear()
    {
        while (m_count > 0)
            pop_front();
        m_head = 0;
    }

private:
    void grow()
    {
        std::vector<T> larger(m_slots.size() * 2); // stays a power of two
        for (size_t i = 0; i < m_count; ++i)
            larger[i] = std::move((*this)[i]);
        m_slots.swap(larger);
        m_mask = m_slots.size() - 1;
        m_head = 0;
    }

    std::vector<T> m_slots;
    size_t m_mask; // m_slots.size() - 1
    size_t m_head = 0;
    size_t m_count = 0;
};
