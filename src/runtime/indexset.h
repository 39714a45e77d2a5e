#pragma once
// IndexSet: an ordered set of non-negative integers, kept as sorted, disjoint,
// non-adjacent ranges. It is the index form of every ordered to-many change.
// The largest 64-bit value is the platform's "not found" and is never held.

#include "zt_export.h"

#include <QList>
#include <QMetaType>
#include <QString>
#include <initializer_list>
#include <vector>

namespace zt {

class ZT_EXPORT IndexSet
{
public:
    struct Range
    {
        quint64 location = 0;
        quint64 length = 0;
        quint64 end() const { return location + length; } // one past the last index
        friend bool operator==(const Range &, const Range &) = default;
    };

    IndexSet() = default;
    explicit IndexSet(quint64 index) { add(index); }
    IndexSet(std::initializer_list<quint64> indexes);
    static IndexSet fromRange(quint64 location, quint64 length);

    bool isEmpty() const { return m_ranges.empty(); }
    quint64 count() const;
    quint64 first() const; //!< precondition: not empty
    quint64 last() const;  //!< precondition: not empty
    bool contains(quint64 index) const;
    const std::vector<Range> &ranges() const { return m_ranges; }
    QList<quint64> toList() const;

    void add(quint64 index) { addRange(index, 1); }
    void addRange(quint64 location, quint64 length);
    void remove(quint64 index) { removeRange(index, 1); }
    void removeRange(quint64 location, quint64 length);

    //! "(3 5-7)": the indexes, runs as first-last.
    QString description() const;

    class const_iterator
    {
    public:
        using value_type = quint64;
        using difference_type = std::ptrdiff_t;
        const_iterator() = default;
        const_iterator(const std::vector<Range> *r, size_t range, quint64 offset)
            : m_ranges(r), m_range(range), m_offset(offset)
        {}
        quint64 operator*() const { return (*m_ranges)[m_range].location + m_offset; }
        const_iterator &operator++()
        {
            if (++m_offset == (*m_ranges)[m_range].length) {
                ++m_range;
                m_offset = 0;
            }
            return *this;
        }
        const_iterator operator++(int)
        {
            auto copy = *this;
            ++*this;
            return copy;
        }
        friend bool operator==(const const_iterator &a, const const_iterator &b)
        {
            return a.m_range == b.m_range && a.m_offset == b.m_offset;
        }

    private:
        const std::vector<Range> *m_ranges = nullptr;
        size_t m_range = 0;
        quint64 m_offset = 0;
    };
    const_iterator begin() const { return {&m_ranges, 0, 0}; }
    const_iterator end() const { return {&m_ranges, m_ranges.size(), 0}; }

    friend bool operator==(const IndexSet &, const IndexSet &) = default;

private:
    std::vector<Range> m_ranges;
};

} // namespace zt

Q_DECLARE_METATYPE(zt::IndexSet)
