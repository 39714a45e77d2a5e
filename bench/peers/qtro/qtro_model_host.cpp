// The Qt Remote Objects side of bench_model_join: a host node remoting a
// list model of people with five roles (nickname, user name, host name,
// real name, privileges) as "People", told what to do by lines on stdin:
//
//   LIVE <rows>   appends the rows 40 at a time, one insertion per turn of
//                 the event loop (as NAMES lines arrive); answers
//                 "DONE <first insertion ns> <model complete ns>" on the
//                 monotonic clock both processes share.
//   FILL <rows>   appends the rows at once; answers "FILLED".
//   CLEAR         removes every row; answers "CLEARED".
// Prints "READY <port>"; leaves when stdin closes.

#include "peer_process.h"

#include <QAbstractListModel>
#include <QCoreApplication>
#include <QRemoteObjectHost>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTimer>
#include <QUrl>

#include <ctime>
#include <unistd.h>

namespace {

constexpr int kRowsPerLine = 40;

qint64 monotonicNs()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}

struct Person
{
    QString nickname, username, hostname, realname;
    int privileges = 0;
};

class PeopleModel : public QAbstractListModel
{
public:
    enum Role
    {
        Nickname = Qt::UserRole + 1,
        Username,
        Hostname,
        Realname,
        Privileges
    };
    static QList<int> roles() { return {Nickname, Username, Hostname, Realname, Privileges}; }

    int rowCount(const QModelIndex &parent = {}) const override
    {
        return parent.isValid() ? 0 : int(m_rows.size());
    }
    QVariant data(const QModelIndex &index, int role) const override
    {
        if (!index.isValid() || index.row() >= m_rows.size())
            return {};
        const Person &p = m_rows[index.row()];
        switch (role) {
        case Nickname:
            return p.nickname;
        case Username:
            return p.username;
        case Hostname:
            return p.hostname;
        case Realname:
            return p.realname;
        case Privileges:
            return p.privileges;
        default:
            return {};
        }
    }
    QHash<int, QByteArray> roleNames() const override
    {
        return {{Nickname, "nickname"},
                {Username, "username"},
                {Hostname, "hostname"},
                {Realname, "realname"},
                {Privileges, "privileges"}};
    }

    void append(int count)
    {
        const int first = int(m_rows.size());
        beginInsertRows({}, first, first + count - 1);
        for (int i = first; i < first + count; ++i)
            m_rows.append({QStringLiteral("nick%1").arg(i), QStringLiteral("u%1").arg(i),
                           QStringLiteral("host-%1.example.net").arg(i), QStringLiteral("Person %1").arg(i),
                           i % 7 == 0   ? 3
                           : i % 5 == 0 ? 1
                                        : 0});
        endInsertRows();
    }
    void clear()
    {
        beginResetModel();
        m_rows.clear();
        endResetModel();
    }

private:
    QList<Person> m_rows;
};

quint16 listenOnFreePort(QRemoteObjectHost &host)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, 0))
            continue;
        const quint16 port = probe.serverPort();
        probe.close();
        if (host.setHostUrl(QUrl(QStringLiteral("tcp://127.0.0.1:%1").arg(port))))
            return port;
    }
    return 0;
}

void say(const QByteArray &line)
{
    std::fprintf(stdout, "%s\n", line.constData());
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    ztpeer::bindToParentLifetime();
    QCoreApplication app(argc, argv);
    QRemoteObjectHost host;
    const quint16 port = listenOnFreePort(host);
    if (port == 0)
        return 1;
    PeopleModel model;
    if (!host.enableRemoting(&model, QStringLiteral("People"), PeopleModel::roles()))
        return 1;

    auto live = [&](int rows) {
        const qint64 first = monotonicNs();
        auto left = std::make_shared<int>(rows);
        auto step = std::make_shared<std::function<void()>>();
        *step = [&model, left, step, first] {
            const int n = std::min(*left, kRowsPerLine);
            model.append(n);
            *left -= n;
            if (*left > 0) {
                QTimer::singleShot(0, *step);
                return;
            }
            say("DONE " + QByteArray::number(first) + ' ' + QByteArray::number(monotonicNs()));
            QTimer::singleShot(0, [step] { *step = nullptr; });
        };
        (*step)();
    };

    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char buffer[256];
        const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            QCoreApplication::quit();
            return;
        }
        pending.append(buffer, n);
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0;) {
            const QList<QByteArray> words = pending.left(end).trimmed().split(' ');
            pending.remove(0, end + 1);
            if (words.value(0) == "LIVE" && words.size() == 2) {
                live(words[1].toInt());
            } else if (words.value(0) == "FILL" && words.size() == 2) {
                model.append(words[1].toInt());
                say("FILLED");
            } else if (words.value(0) == "CLEAR") {
                model.clear();
                say("CLEARED");
            }
        }
    });
    ztpeer::announceReady(port);
    return app.exec();
}
