#include "runtime/fastpath_p.h"

#include <QHash>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace zt::fastpath {

namespace {

// The interned keys: characters in blocks that are never freed, found by
// their Latin-1 bytes. Bounded even though only known keys enter it, so a
// mistake elsewhere cannot make it grow without end.
class KeyPool
{
public:
    static KeyPool &instance()
    {
        static KeyPool *pool = new KeyPool; // immortal: interned strings may outlive every static
        return *pool;
    }

    QString intern(const QString &key)
    {
        if (key.size() > MaxInternedKeyLength || key.isEmpty())
            return key;
        char latin1[MaxInternedKeyLength];
        for (qsizetype i = 0; i < key.size(); ++i) {
            const char16_t c = key.at(i).unicode();
            if (c > 0x7f)
                return key;
            latin1[i] = char(c);
        }
        const QByteArray bytes(latin1, key.size());
        std::lock_guard lock(m_mutex);
        if (const auto it = m_keys.constFind(bytes); it != m_keys.cend())
            return it.value();
        if (m_keys.size() >= MaxKeys)
            return key;
        const qsizetype n = key.size();
        if (m_blocks.empty() || BlockSize - m_blockUsed < n) {
            m_blocks.push_back(std::make_unique<char16_t[]>(BlockSize));
            m_blockUsed = 0;
        }
        char16_t *units = m_blocks.back().get() + m_blockUsed;
        std::memcpy(units, key.constData(), size_t(n) * sizeof(char16_t));
        m_blockUsed += n;
        const QString interned = QString::fromRawData(reinterpret_cast<const QChar *>(units), n);
        m_keys.insert(bytes, interned);
        return interned;
    }

    QString find(const char *chars, qsizetype n)
    {
        if (n > MaxInternedKeyLength)
            return {};
        const QByteArray bytes = QByteArray::fromRawData(chars, n);
        std::lock_guard lock(m_mutex);
        return m_keys.value(bytes);
    }

private:
    // At most 8,192 keys of at most 40 characters: under 2 MB with the table.
    static constexpr qsizetype MaxKeys = 8192;
    static constexpr qsizetype BlockSize = 16384; // characters

    std::mutex m_mutex;
    QHash<QByteArray, QString> m_keys;
    std::vector<std::unique_ptr<char16_t[]>> m_blocks;
    qsizetype m_blockUsed = 0;
};

std::atomic<quint64> nextSerial{1};

} // namespace

QString internKey(const QString &key)
{
    return KeyPool::instance().intern(key);
}

QString findInternedKey(const char *chars, qsizetype n)
{
    return KeyPool::instance().find(chars, n);
}

quint64 newSerial() noexcept
{
    return nextSerial.fetch_add(1, std::memory_order_relaxed);
}

} // namespace zt::fastpath
