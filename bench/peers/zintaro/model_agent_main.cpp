// The agent side of bench_model_join: an agent connection with the chat
// model, its channels also held by the root that clients mirror
// (model_root.h), told what to do by lines on stdin, answering on stdout.
//
//   JOIN <people>     joins a new channel whose NAMES reply lists <people>
//                     nicknames, 40 to a line as a server sends them, some
//                     with "@" or "+"; one line is parsed and its people are
//                     inserted into "users" per turn of the event loop, as
//                     lines arrive from the network. Answers
//                     "JOINED <first line ns> <model complete ns>" on the
//                     monotonic clock that both processes share.
//   BUILD <channels> <people> <lines>
//                     adds that many channels, each with that many people
//                     and lines of content; answers "BUILT".
//   RESET             removes every channel; answers "RESET".
// Prints "READY <port>" when it listens; leaves when stdin closes.

#include "connection_classes.h"
#include "core/ztagenthost.h"
#include "model/ztidentity.h"
#include "model_root.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>
#include <QTimer>

#include <ctime>
#include <unistd.h>

namespace {

constexpr int kNamesPerLine = 40;

qint64 monotonicNs()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// The NAMES reply lines ("353") of a channel of `people`: every seventh
// person an operator, every fifth voiced; about 400 bytes a line.
QStringList namesLines(const QString &channel, int people)
{
    QStringList lines;
    QString line;
    int inLine = 0;
    for (int i = 0; i < people; ++i) {
        if (inLine == 0)
            line = QStringLiteral(":irc.example.net 353 Me = %1 :").arg(channel);
        else
            line += u' ';
        if (i % 7 == 0)
            line += u'@';
        else if (i % 5 == 0)
            line += u'+';
        line += QStringLiteral("nick%1_%2").arg(i).arg(channel.size());
        if (++inLine == kNamesPerLine || i + 1 == people) {
            lines.append(line);
            inLine = 0;
        }
    }
    return lines;
}

// Privilege levels of a prefix ("@" 3, "+" 1), as the engine keeps them.
QVariant privilegesOf(QChar prefix)
{
    if (prefix == u'@')
        return QVariantList{qint64(3)};
    if (prefix == u'+')
        return QVariantList{qint64(1)};
    return {};
}

class Agent : public ZTAgentHostDelegate
{
public:
    zt::Ref<AgentConnection> connection;
    zt::Ref<BenchModelRoot> root;
    int channelCount = 0;

    zt::Ref<AgentChannel> newChannel()
    {
        auto channel = zt::make<AgentChannel>();
        channel->init();
        channel->setName(QStringLiteral("#big%1").arg(++channelCount));
        channel->setIsChannel(true);
        channel->setConnection(connection.get());
        connection->mutableChannels().addObject(zt::objectValue(channel.get()));
        root->mutableChannels().addObject(zt::objectValue(channel.get()));
        return channel;
    }

    // One NAMES line: its people, made and inserted with one insertion.
    static void applyNamesLine(AgentChannel *channel, const QString &line)
    {
        const qsizetype colon = line.indexOf(u':', 1);
        const QStringList names = line.mid(colon + 1).split(u' ', Qt::SkipEmptyParts);
        QList<zt::Ref<ZTAbstractPerson>> people;
        people.reserve(names.size());
        for (const QString &entry : names) {
            const bool prefixed = entry.startsWith(u'@') || entry.startsWith(u'+');
            auto person = zt::make<AgentPerson>();
            person->initWithNicknameOnChannel(prefixed ? entry.mid(1) : entry, channel);
            if (prefixed)
                person->identity()->setPrivileges(privilegesOf(entry.front()));
            people.append(person);
        }
        const qsizetype at = channel->countOfUsers();
        channel->mutableUsers().insertObjectsAtIndexes(
            zt::detail::objectValues(people), zt::IndexSet::fromRange(quint64(at), quint64(people.size())));
    }

    void join(int people)
    {
        zt::Ref<AgentChannel> channel = newChannel();
        auto lines = std::make_shared<QStringList>(namesLines(channel->name(), people));
        auto next = std::make_shared<qsizetype>(0);
        auto first = std::make_shared<qint64>(monotonicNs());
        auto step = std::make_shared<std::function<void()>>();
        *step = [=] {
            applyNamesLine(channel.get(), lines->at((*next)++));
            if (*next < lines->size()) {
                QTimer::singleShot(0, *step);
                return;
            }
            channel->setJoinCompleted(true);
            QTextStream(stdout) << "JOINED " << *first << ' ' << monotonicNs() << Qt::endl;
            *step = nullptr; // breaks the cycle
        };
        (*step)();
    }

    void build(int channels, int people, int lines)
    {
        for (int c = 0; c < channels; ++c) {
            zt::Ref<AgentChannel> channel = newChannel();
            for (const QString &line : namesLines(channel->name(), people))
                applyNamesLine(channel.get(), line);
            QVariantList content;
            content.reserve(lines);
            for (int i = 0; i < lines; ++i)
                content.append(QVariantMap{
                    {QStringLiteral("msgID"), zt::process::globallyUniqueString()},
                    {QStringLiteral("nick"), QStringLiteral("nick%1").arg(i % people)},
                    {QStringLiteral("text"), QStringLiteral("line %1 of a busy channel, long enough to be "
                                                            "a real one")
                                                 .arg(i)}});
            channel->setContent(content);
        }
        QTextStream(stdout) << "BUILT" << Qt::endl;
    }

    void reset()
    {
        root->mutableChannels().removeAllObjects();
        connection->mutableChannels().removeAllObjects(); // invalidates them
        QTextStream(stdout) << "RESET" << Qt::endl;
    }

    void command(const QByteArray &line)
    {
        const QList<QByteArray> words = line.trimmed().split(' ');
        if (words.value(0) == "JOIN" && words.size() == 2)
            join(words[1].toInt());
        else if (words.value(0) == "BUILD" && words.size() == 4)
            build(words[1].toInt(), words[2].toInt(), words[3].toInt());
        else if (words.value(0) == "RESET")
            reset();
        else
            QTextStream(stdout) << "ERROR " << line << Qt::endl;
    }
};

} // namespace

int main(int argc, char **argv)
{
    zt::process::restartWithTunedHeap(argv);
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.BenchModelAgent"));
    Agent agent;
    agent.connection = zt::make<AgentConnection>();
    agent.connection->init();
    agent.connection->setNickname(QStringLiteral("Me"));
    agent.root = zt::make<BenchModelRoot>();
    agent.root->init();
    zt::Ref<ZTAgentHost> host = ZTAgentHost::create(agent.root.get(), &agent);
    if (!host->listen(QStringLiteral("127.0.0.1"), 0))
        return 1;
    QByteArray pending;
    QSocketNotifier stdinWatch(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&stdinWatch, &QSocketNotifier::activated, [&] {
        char buffer[256];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            QCoreApplication::quit();
            return;
        }
        pending.append(buffer, n);
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0;) {
            const QByteArray line = pending.left(end);
            pending.remove(0, end + 1);
            agent.command(line);
        }
    });
    QTextStream(stdout) << "READY " << host->port() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    host->close();
    agent.root->mutableChannels().removeAllObjects();
    agent.root->invalidate();
    agent.connection->invalidate();
    return rc;
}
