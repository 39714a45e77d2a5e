// Encode and decode of a typical change-message payload, ours against
// libplist, side by side. Each side encodes from its own in-memory form (our
// QVariant, libplist's plist_t tree built once); both decoders read the same
// bytes.

#include "runtime/plist.h"
#include "runtime/process.h"
#include "runtime/value.h"

#include <QDateTime>

#include <benchmark/benchmark.h>
#include <plist/plist.h>

using namespace zt;

namespace {

QVariantMap channel(int i)
{
    return {
        {QStringLiteral("description"), QStringLiteral("8C4B2E71-5D0F-4A9%1").arg(i)},
        {QStringLiteral("name"), QStringLiteral("#zintaro-%1").arg(i)},
        {QStringLiteral("unreadCount"), 4 + i},
        {QStringLiteral("joined"), i != 1},
    };
}

// A property change as it crosses between the processes: about a dozen keys
// with strings, integers, booleans, a nested array of small dictionaries, 64
// bytes of data and a date.
QVariant payload()
{
    QByteArray data(64, Qt::Uninitialized);
    for (int i = 0; i < data.size(); ++i)
        data[i] = char(i * 37 + 11);
    return QVariantMap{
        {QStringLiteral("objectID"), QStringLiteral("4F1C6A2E-0B7D-4C5A-9E2B-8D3F1A6C7E90")},
        {QStringLiteral("key"), QStringLiteral("channelDictionaries")},
        {QStringLiteral("changeKind"), 2},
        {QStringLiteral("sequence"), 1234567},
        {QStringLiteral("status"), 3},
        {QStringLiteral("isAgent"), true},
        {QStringLiteral("isVolatile"), false},
        {QStringLiteral("topic"), QStringLiteral("Welcome \u2014 be nice")},
        {QStringLiteral("timestamp"), QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC)},
        {QStringLiteral("cookie"), data},
        {QStringLiteral("values"), QVariantList{channel(0), channel(1), channel(2)}},
    };
}

// libplist's own tree of the same value.
plist_t toLibplist(const QVariant &v)
{
    switch (kindOf(v)) {
    case ValueKind::String:
        return plist_new_string(v.toString().toUtf8().constData());
    case ValueKind::Bool:
        return plist_new_bool(v.toBool());
    case ValueKind::Signed:
    case ValueKind::Unsigned:
        return plist_new_uint(v.toULongLong());
    case ValueKind::Real:
        return plist_new_real(v.toDouble());
    case ValueKind::Data: {
        const QByteArray d = v.toByteArray();
        return plist_new_data(d.constData(), quint64(d.size()));
    }
    case ValueKind::Date: {
        const qint64 ms = v.toDateTime().toMSecsSinceEpoch() - Q_INT64_C(978307200000);
        return plist_new_date(int32_t(ms / 1000), int32_t(ms % 1000) * 1000);
    }
    case ValueKind::Array: {
        plist_t array = plist_new_array();
        for (const QVariant &e : v.toList())
            plist_array_append_item(array, toLibplist(e));
        return array;
    }
    case ValueKind::Dictionary: {
        plist_t dict = plist_new_dict();
        const QVariantMap map = v.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            plist_dict_set_item(dict, it.key().toUtf8().constData(), toLibplist(it.value()));
        return dict;
    }
    default:
        return nullptr;
    }
}

// Each side encodes the value `make` answers.
void encodeOurs(benchmark::State &state, QVariant (*make)())
{
    const QVariant value = make();
    qsizetype size = 0;
    for (auto _ : state) {
        QByteArray bytes = plist::writeBinary(value);
        size = bytes.size();
        benchmark::DoNotOptimize(bytes.constData());
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes"] = double(size);
}

void encodeLibplist(benchmark::State &state, QVariant (*make)())
{
    plist_t tree = toLibplist(make());
    uint32_t size = 0;
    for (auto _ : state) {
        char *bytes = nullptr;
        plist_to_bin(tree, &bytes, &size);
        benchmark::DoNotOptimize(bytes);
        plist_to_bin_free(bytes);
    }
    plist_free(tree);
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes"] = double(size);
}

// The state a client receives on connecting to an agent that holds a channel
// of 50,000 people: one list of person dictionaries, each with its identity.
QVariant largeChannel()
{
    QVariantList people;
    people.reserve(50000);
    for (int i = 0; i < 50000; ++i) {
        const QVariantMap identity{
            {QStringLiteral("description"), zt::process::globallyUniqueString()},
            {QStringLiteral("nickname"), QStringLiteral("user%1").arg(i)},
            {QStringLiteral("username"), QStringLiteral("~u%1").arg(i)},
            {QStringLiteral("hostname"), QStringLiteral("host-%1.example.org").arg(i)},
            {QStringLiteral("status"), 0},
            {QStringLiteral("privileges"), QVariantList{i % 7 == 0 ? 2 : 0}},
        };
        people.append(QVariantMap{
            {QStringLiteral("description"), zt::process::globallyUniqueString()},
            {QStringLiteral("identityDictionary"), identity},
            {QStringLiteral("isOnline"), true},
            {QStringLiteral("unreadCount"), 0},
        });
    }
    return people;
}

void decodeOurs(benchmark::State &state)
{
    const QByteArray bytes = plist::writeBinary(payload());
    for (auto _ : state) {
        std::optional<QVariant> value = plist::readBinary(bytes);
        benchmark::DoNotOptimize(value->constData());
    }
    state.SetItemsProcessed(state.iterations());
}

void decodeLibplist(benchmark::State &state)
{
    const QByteArray bytes = plist::writeBinary(payload());
    for (auto _ : state) {
        plist_t tree = nullptr;
        plist_from_bin(bytes.constData(), uint32_t(bytes.size()), &tree);
        benchmark::DoNotOptimize(tree);
        plist_free(tree);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(encodeOurs, payload, payload)->Name("plist/encode/ours");
BENCHMARK_CAPTURE(encodeLibplist, payload, payload)->Name("plist/encode/libplist");
// About 12 MB of output (libplist's 10.7 MB).
BENCHMARK_CAPTURE(encodeOurs, large, largeChannel)
    ->Name("plist/encode_50000_people/ours")
    ->Unit(benchmark::kMillisecond);
// libplist takes seconds here: one run per repetition.
BENCHMARK_CAPTURE(encodeLibplist, large, largeChannel)
    ->Name("plist/encode_50000_people/libplist")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK(decodeOurs)->Name("plist/decode/ours");
BENCHMARK(decodeLibplist)->Name("plist/decode/libplist");

} // namespace

BENCHMARK_MAIN();
