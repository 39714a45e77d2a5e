// Dictionary forms of people: the agent writing a person (with its identity
// and privileges) as the dictionary that crosses to the client, and the
// client building a person from one (the object, its identity, their
// directory entries), as a channel's user list arrives.

#include "bench_support.h"
#include "connection_classes.h"
#include "person_classes.h"
#include "runtime/process.h"

#include <benchmark/benchmark.h>

namespace {

void playRole(bool agent)
{
    zt::process::setApplicationIdentifier(agent ? QStringLiteral("com.zintaro.Zintaro2Agent")
                                                : QStringLiteral("com.zintaro.Zintaro2"));
    ZTIPCProxy::resetCachedProcessRole();
}

// An agent connection with one channel and one person in it, as the engine
// leaves them after a JOIN and a WHO reply.
struct AgentScene
{
    AgentScene()
    {
        playRole(true);
        connection = zt::make<AgentConnection>();
        connection->init();
        connection->setNickname(QStringLiteral("Me"));
        channel = zt::make<AgentChannel>();
        channel->init();
        channel->setName(QStringLiteral("#zintaro"));
        channel->setConnection(connection.get());
        connection->mutableChannels().addObject(zt::objectValue(channel.get()));
        person = zt::make<AgentPerson>();
        person->initWithNicknameOnChannel(QStringLiteral("quentin"), channel.get());
        const zt::Ref<ZTAbstractIdentity> id = person->identity();
        id->setUsername(QStringLiteral("qk"));
        id->setHostname(QStringLiteral("host-42.example.net"));
        id->setRealname(QStringLiteral("Quentin K."));
        id->setPrivileges(QVariantList{qint64(3), qint64(1)});
        channel->addPerson(person);
    }
    ~AgentScene() { connection->invalidate(); }

    zt::Ref<AgentConnection> connection;
    zt::Ref<AgentChannel> channel;
    zt::Ref<AgentPerson> person;
};

void BM_PersonDictionary(benchmark::State &state)
{
    ztbench::pinProcess(0, ztbench::pinnedCpu(true));
    AgentScene scene;
    for (auto _ : state)
        benchmark::DoNotOptimize(scene.person->dictionary());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PersonDictionary);

// Client side: people made from dictionaries with distinct UUIDs (their own
// and their identity's), a batch at a time; the batch is invalidated with
// the clock stopped, so every person timed is a new object.
void BM_PersonFromDictionary(benchmark::State &state)
{
    ztbench::pinProcess(0, ztbench::pinnedCpu(true));
    constexpr int batch = 512;
    QVariantMap model;
    {
        AgentScene scene;
        model = scene.person->dictionary();
    }
    playRole(false);
    QList<QVariant> dictionaries;
    for (int i = 0; i < batch; ++i) {
        QVariantMap d = model;
        QVariantMap id = d.value(QStringLiteral("identityDictionary")).toMap();
        d.insert(QStringLiteral("description"), zt::process::globallyUniqueString());
        id.insert(QStringLiteral("description"), zt::process::globallyUniqueString());
        d.insert(QStringLiteral("identityDictionary"), id);
        d.remove(QStringLiteral("connectionUUID")); // the connection is gone
        dictionaries.append(d);
    }
    std::vector<zt::Ref<ClientPerson>> people;
    people.reserve(batch);
    int next = 0;
    for (auto _ : state) {
        people.push_back(ClientPerson::personWithDictionary(dictionaries[next]));
        if (++next == batch) {
            state.PauseTiming();
            for (const auto &p : people)
                p->invalidate();
            people.clear();
            next = 0;
            state.ResumeTiming();
        }
    }
    for (const auto &p : people)
        p->invalidate();
    state.SetItemsProcessed(state.iterations());
    playRole(true);
}
BENCHMARK(BM_PersonFromDictionary);

} // namespace

BENCHMARK_MAIN();
