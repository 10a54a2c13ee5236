// Honest clients with the C++ library; what they say to the soak is in honest.py.
//     vorbel_soak_clients URI COUNT
#include <QCoreApplication>
#include <QMap>
#include <QPair>
#include <QString>
#include <QTimer>
#include <QVector>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "vorbel/vorbelclient.h"

namespace
{

constexpr int telling = 250; // milliseconds
constexpr int writing = 100;

/// Seconds by the clock that all programs here share.
double now()
{
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(since).count();
}

/// What one leaf said since it was told last, as runs of numbers without a gap.
struct Runs {
    QVector<QPair<uint, uint>> runs;
    uint last = 0;
    double arrival = 0;

    void take(uint number)
    {
        if (!runs.isEmpty() && number == runs.last().second + 1) {
            runs.last().second = number;
        } else {
            runs.append({number, number});
        }
        last = number;
    }
};

/// One client. Says a thing that happened behind all that was heard before.
class Honest
{
public:
    Honest(const QString &uri, int number) : m_client(uri), m_name("cpp " + QByteArray::number(number))
    {
        m_client.setPauses(200, 2000);
        QObject::connect(&m_client, &VorbelClient::valuesReceived,
                         [this](const Vorbel::Values &values) { take(values.nested.toMap()); });
        QObject::connect(&m_client, &VorbelClient::stateChanged, [this] { tellState(); });
        QObject::connect(&m_client, &VorbelClient::undecodable, [this](const QByteArray &message) {
            tell("undecodable", QByteArray::number(now(), 'f', 6) + ",\"" + message.toHex() + '"');
        });
        QObject::connect(&m_client, &VorbelClient::confirmed, [this](quint64 asked) {
            if (asked == m_asked) {
                finish("wrote");
            }
        });
        QObject::connect(&m_client, &VorbelClient::unconfirmed, [this](quint64 asked) {
            if (asked == m_asked) {
                finish("refused");
            }
        });
        m_client.open();
    }

    void tellHeard()
    {
        for (auto it = m_heard.begin(); it != m_heard.end(); ++it) {
            if (it->runs.isEmpty()) {
                continue;
            }
            std::printf("[\"heard\",\"%s\",\"%s\",[", m_name.constData(), qPrintable(it.key()));
            const char *between = "";
            for (const auto &run : qAsConst(it->runs)) {
                std::printf("%s[%u,%u]", between, run.first, run.second);
                between = ",";
            }
            std::printf("],%u,%.6f]\n", it->last, it->arrival);
            it->runs.clear();
        }
    }

    /// One number after the other, each told before it goes and once the daemon has handled it.
    void write()
    {
        if (m_asked != 0) {
            return;
        }
        ++m_number;
        tell("writes", words());
        const bool isSent = m_client.set(QStringLiteral("written_cpp"), m_number).isSent();
        m_asked = isSent ? m_client.confirm() : 0;
        if (m_asked == 0) {
            finish("refused");
        }
    }

private:
    void take(const QVariantMap &values)
    {
        for (auto it = values.begin(); it != values.end(); ++it) {
            Runs &runs = m_heard[it.key()];
            if (it->canConvert<QVector<uint>>() && it->userType() == qMetaTypeId<QVector<uint>>()) {
                for (const uint number : it->value<QVector<uint>>()) {
                    runs.take(number);
                }
            } else {
                runs.take(it->toUInt());
            }
            runs.arrival = now();
        }
    }

    void tellState()
    {
        const bool isThere = m_client.isConnected() || m_client.state() == VorbelClient::Listening;
        if (isThere != m_isThere) {
            m_isThere = isThere;
            tell(isThere ? "there" : "away", QByteArray::number(now(), 'f', 6));
        }
    }

    QByteArray words() const
    {
        return QByteArray::number(m_number) + ',' + QByteArray::number(now(), 'f', 6);
    }

    void finish(const char *what)
    {
        m_asked = 0;
        tell(what, words());
    }

    void tell(const char *what, const QByteArray &words)
    {
        tellHeard();
        std::printf("[\"%s\",\"%s\",%s]\n", what, m_name.constData(), words.constData());
    }

    VorbelClient m_client;
    QByteArray m_name;
    QMap<QString, Runs> m_heard;
    bool m_isThere = false;
    uint m_number = 0;
    quint64 m_asked = 0;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments();
    if (words.size() != 3) {
        std::fputs("vorbel_soak_clients URI COUNT\n", stderr);
        return 1;
    }
    std::vector<std::unique_ptr<Honest>> everybody;
    for (int number = 0; number < words.at(2).toInt(); ++number) {
        everybody.push_back(std::make_unique<Honest>(words.at(1), number));
    }
    QTimer tell;
    QObject::connect(&tell, &QTimer::timeout, [&] {
        for (const auto &each : everybody) {
            each->tellHeard();
        }
        std::fflush(stdout);
    });
    tell.start(telling);
    QTimer write;
    QObject::connect(&write, &QTimer::timeout, [&] { everybody.front()->write(); });
    write.start(writing);
    return QCoreApplication::exec();
}
