#include "runtime/indexset.h"

#include <algorithm>

namespace zt {

IndexSet::IndexSet(std::initializer_list<quint64> indexes)
{
    for (quint64 i : indexes)
        add(i);
}

IndexSet IndexSet::fromRange(quint64 location, quint64 length)
{
    IndexSet s;
    s.addRange(location, length);
    return s;
}

quint64 IndexSet::count() const
{
    quint64 n = 0;
    for (const Range &r : m_ranges)
        n += r.length;
    return n;
}

quint64 IndexSet::first() const
{
    return m_ranges.front().location;
}

quint64 IndexSet::last() const
{
    return m_ranges.back().end() - 1;
}

bool IndexSet::contains(quint64 index) const
{
    auto it = std::upper_bound(m_ranges.begin(), m_ranges.end(), index,
                               [](quint64 i, const Range &r) { return i < r.location; });
    if (it == m_ranges.begin())
        return false;
    --it;
    return index < it->end();
}

QList<quint64> IndexSet::toList() const
{
    QList<quint64> list;
    list.reserve(qsizetype(count()));
    for (quint64 i : *this)
        list.append(i);
    return list;
}

void IndexSet::addRange(quint64 location, quint64 length)
{
    length = std::min(length, ~quint64(0) - location); // clamp so end() cannot wrap
    if (length == 0)
        return; // (the largest index cannot be held: end() would wrap)
    quint64 start = location;
    quint64 stop = location + length;
    // First range that ends at or after `start` (touching ranges merge).
    auto first = std::lower_bound(m_ranges.begin(), m_ranges.end(), start,
                                  [](const Range &r, quint64 s) { return r.end() < s; });
    auto last = first;
    while (last != m_ranges.end() && last->location <= stop) {
        start = std::min(start, last->location);
        stop = std::max(stop, last->end());
        ++last;
    }
    first = m_ranges.erase(first, last);
    m_ranges.insert(first, Range{start, stop - start});
}

void IndexSet::removeRange(quint64 location, quint64 length)
{
    length = std::min(length, ~quint64(0) - location);
    if (length == 0)
        return;
    const quint64 stop = location + length;
    std::vector<Range> out;
    out.reserve(m_ranges.size() + 1);
    for (const Range &r : m_ranges) {
        if (r.end() <= location || r.location >= stop) {
            out.push_back(r);
            continue;
        }
        if (r.location < location)
            out.push_back(Range{r.location, location - r.location});
        if (r.end() > stop)
            out.push_back(Range{stop, r.end() - stop});
    }
    m_ranges = std::move(out);
}

QString IndexSet::description() const
{
    QString s = QStringLiteral("(");
    bool firstRange = true;
    for (const Range &r : m_ranges) {
        if (!firstRange)
            s += u' ';
        firstRange = false;
        s += QString::number(r.location);
        if (r.length > 1)
            s += u'-' + QString::number(r.end() - 1);
    }
    return s + u')';
}

} // namespace zt
