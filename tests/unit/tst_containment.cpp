// The boundary between event loop and handlers: what is thrown behind it never leaves it.
#include "service/containment.h"

#include <QtTest>

#include <new>
#include <stdexcept>

class TestContainment : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    // Happy
    void passesArgumentsOn();
    void servesAsASlotWithFewerArguments();

    // Rainy
    void anExceptionIsOneCriticalLine_data();
    void anExceptionIsOneCriticalLine();
    void theNextCallIsServed();
    void anExceptionDoesNotStopOtherReceivers();

signals:
    void happened(int number, const QString &text);
};

static QStringList s_log;

static void s_collect(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    s_log.append(QString::number(type) + QLatin1Char(' ') + text);
}

static QString s_critical(const char *text)
{
    return QString::number(QtCriticalMsg) + QLatin1Char(' ') + QLatin1String(text);
}

void TestContainment::cleanup()
{
    qInstallMessageHandler(nullptr);
    s_log.clear();
    disconnect();
}

void TestContainment::passesArgumentsOn()
{
    QString seen;
    contained([&seen](int a, const QString &b) { seen = QString::number(a) + b; })(7, QStringLiteral("x"));
    QCOMPARE(seen, QStringLiteral("7x"));
}

void TestContainment::servesAsASlotWithFewerArguments()
{
    int sum = 0;
    connect(this, &TestContainment::happened, contained([&sum] { sum += 1; }));
    connect(this, &TestContainment::happened, contained([&sum](int number) { sum += number; }));
    emit happened(10, QString());
    QCOMPARE(sum, 11);
}

void TestContainment::anExceptionIsOneCriticalLine_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("line");
    QTest::newRow("bad type") << 0 << s_critical("Input dropped, its conversion failed: Bad type");
    QTest::newRow("out of memory") << 1 << s_critical("Input dropped, its conversion failed: std::bad_alloc");
}

void TestContainment::anExceptionIsOneCriticalLine()
{
    QFETCH(int, kind);
    QFETCH(QString, line);
    qInstallMessageHandler(s_collect);
    contained([kind] {
        if (kind == 0) {
            throw std::runtime_error("Bad type");
        }
        throw std::bad_alloc();
    })();
    QCOMPARE(s_log, QStringList{line});
}

void TestContainment::theNextCallIsServed()
{
    qInstallMessageHandler(s_collect);
    QList<int> served;
    const auto handler = contained([&served](int number) {
        if (number == 2) {
            throw std::runtime_error("Bad type");
        }
        served.append(number);
    });
    for (int number : {1, 2, 3}) {
        handler(number);
    }
    QCOMPARE(served, (QList<int>{1, 3}));
    QCOMPARE(s_log.size(), 1);
}

void TestContainment::anExceptionDoesNotStopOtherReceivers()
{
    qInstallMessageHandler(s_collect);
    bool reached = false;
    connect(this, &TestContainment::happened, contained([] { throw std::runtime_error("first"); }));
    connect(this, &TestContainment::happened, contained([&reached] { reached = true; }));
    emit happened(0, QString());
    QVERIFY(reached);
}

QTEST_APPLESS_MAIN(TestContainment)
#include "tst_containment.moc"
