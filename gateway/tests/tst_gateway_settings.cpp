#include "gateway/settings.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using Gateway::readSettings;
using Gateway::Settings;

class tst_Gateway_settings : public QObject
{
    Q_OBJECT

private slots:
    void anEmptyFileGivesTheDefaults();
    void allKeysAreRead();
    void mistakesAreTold_data();
    void mistakesAreTold();
    void aFileThatIsNotThereIsTold();
    void usersMayWriteWhatTheirPatternsSay();

private:
    QString write(const QString &name, const QByteArray &content)
    {
        QFile file(m_folder.filePath(name));
        file.open(QIODevice::WriteOnly);
        file.write(content);
        return file.fileName();
    }

    QTemporaryDir m_folder;
};

void tst_Gateway_settings::anEmptyFileGivesTheDefaults()
{
    const auto read = readSettings(write("empty.ini", "; nothing\n[broker]\nuser =\n"), {});
    QCOMPARE(read.errors, QStringList());
    QCOMPARE(read.settings.broker.urls, QStringList("mqtt://127.0.0.1"));
    QCOMPARE(read.settings.broker.version, 5);
    QCOMPARE(read.settings.topics.prefix, "vorbel");
    QCOMPARE(read.settings.values.interval, 1000);
    QCOMPARE(read.settings.spool.megabytes, 100);
    QVERIFY(!read.settings.obeysSomebody());
}

void tst_Gateway_settings::allKeysAreRead()
{
    write("password", "secret\nmore\n");
    write("ca.pem", "");
    const QString pem = m_folder.filePath("ca.pem");
    const QByteArray file = R"([broker]
url = mqtt://a, mqtts://b:8884
version = 3.1.1
user = gateway
password_file = password
ca = %
certificate = %
key = %
client_id = one
keepalive_s = 30
[topics]
prefix = plant/vorbel
id = Öl 7
[daemon]
address = wss://bridge
[schema]
file = /etc/vorbel/schema.json
defend = true
accept = true
[values]
interval_ms = 0
bytes = 1000
[now]
interval_ms = 250
[write]
users = operator: motor.* pump.on, engineer: *
max_age_s = 3
[spool]
megabytes = 7
[homeassistant]
enabled = true
prefix = ha
user = operator
[metrics]
port = 9100
)";
    const auto read =
        readSettings(write("all.ini", QByteArray(file).replace("%", pem.toUtf8())), m_folder.path());
    QCOMPARE(read.errors, QStringList());
    const Settings &settings = read.settings;
    QCOMPARE(settings.broker.urls, QStringList({"mqtt://a", "mqtts://b:8884"}));
    QCOMPARE(settings.broker.version, 3);
    QCOMPARE(settings.broker.user, "gateway");
    QCOMPARE(settings.broker.password, QByteArray("secret"));
    QCOMPARE(settings.broker.ca, pem);
    QCOMPARE(settings.broker.certificate, pem);
    QCOMPARE(settings.broker.key, pem);
    QCOMPARE(settings.broker.clientId, "one");
    QCOMPARE(settings.broker.keepalive, 30);
    QCOMPARE(settings.topics.prefix, "plant/vorbel");
    QCOMPARE(settings.topics.id, QString::fromUtf8("Öl 7"));
    QCOMPARE(settings.daemon.address, "wss://bridge");
    QCOMPARE(settings.schema.file, "/etc/vorbel/schema.json");
    QVERIFY(settings.schema.defend && settings.schema.accept);
    QCOMPARE(settings.values.interval, 0);
    QCOMPARE(settings.values.bytes, 1000);
    QCOMPARE(settings.now.interval, 250);
    QCOMPARE(settings.write.users,
             (QMap<QString, QStringList>{{"operator", {"motor.*", "pump.on"}}, {"engineer", {"*"}}}));
    QCOMPARE(settings.write.maxAge, 3);
    QCOMPARE(settings.spool.megabytes, 7);
    QVERIFY(settings.homeAssistant.enabled);
    QCOMPARE(settings.homeAssistant.prefix, "ha");
    QCOMPARE(settings.homeAssistant.user, "operator");
    QCOMPARE(settings.metrics.port, 9100);
}

void tst_Gateway_settings::mistakesAreTold_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QString>("error");
    QTest::newRow("unknown key") << QByteArray("[broker]\nurls = mqtt://a")
                                 << "[broker] urls: no such setting";
    QTest::newRow("unknown section") << QByteArray("[mqtt]\nurl = mqtt://a") << "[mqtt] url: no such setting";
    QTest::newRow("no section") << QByteArray("url = mqtt://a") << "url: no such setting";
    QTest::newRow("scheme") << QByteArray("[broker]\nurl = tcp://a")
                            << "[broker] url must be mqtt://host or mqtts://host, and has \"tcp://a\"";
    QTest::newRow("second host") << QByteArray("[broker]\nurl = mqtt://a, mqtt://")
                                 << "[broker] url must be mqtt://host or mqtts://host, and has \"mqtt://\"";
    QTest::newRow("password in URL")
        << QByteArray("[broker]\nurl = mqtt://u:p@a")
        << "[broker] url must be mqtt://host or mqtts://host, and has \"mqtt://u:p@a\"";
    QTest::newRow("path in URL")
        << QByteArray("[broker]\nurl = mqtt://a/b")
        << "[broker] url must be mqtt://host or mqtts://host, and has \"mqtt://a/b\"";
    QTest::newRow("version") << QByteArray("[broker]\nversion = 4")
                             << "[broker] version must be 3.1.1 or 5, and is \"4\"";
    QTest::newRow("no number") << QByteArray("[spool]\nmegabytes = 1.5")
                               << "[spool] megabytes must be a whole number from 1 to 10000, and is \"1.5\"";
    QTest::newRow("too small") << QByteArray("[values]\nbytes = 255")
                               << "[values] bytes must be a whole number from 256 to 1048576, and is \"255\"";
    QTest::newRow("too large")
        << QByteArray("[values]\ninterval_ms = 60001")
        << "[values] interval_ms must be a whole number from 0 to 60000, and is \"60001\"";
    QTest::newRow("flag") << QByteArray("[schema]\ndefend = yes")
                          << "[schema] defend must be true or false, and is \"yes\"";
    QTest::newRow("wildcard in prefix")
        << QByteArray("[topics]\nprefix = a/+")
        << "[topics] prefix must be names with / between them, without + and #, and is \"a/+\"";
    QTest::newRow("empty level")
        << QByteArray("[topics]\nprefix = a/")
        << "[topics] prefix must be names with / between them, without + and #, and is \"a/\"";
    QTest::newRow("user without patterns") << QByteArray("[write]\nusers = ann: x, bob")
                                           << "[write] users must be NAME: PATTERN ..., and has \"bob\"";
    QTest::newRow("patterns without user")
        << QByteArray("[write]\nusers = : x") << "[write] users must be NAME: PATTERN ..., and has \": x\"";
    QTest::newRow("no such file") << QByteArray("[broker]\nca = /nonexistent/ca.pem")
                                  << "[broker] ca /nonexistent/ca.pem: No such file or directory";
    QTest::newRow("no credentials")
        << QByteArray("[broker]\npassword_file = password")
        << "[broker] password_file names the credential \"password\", and there are none: see "
           "LoadCredential in systemd.exec(5)";
    QTest::newRow("certificate alone") << QByteArray("[broker]\ncertificate = /dev/null")
                                       << "[broker] certificate and key: one is not of use without the other";
    QTest::newRow("stranger") << QByteArray("[homeassistant]\nuser = ann")
                              << "[homeassistant] user: \"ann\" is none of [write] users";
}

void tst_Gateway_settings::mistakesAreTold()
{
    QFETCH(QByteArray, file);
    QFETCH(QString, error);
    QCOMPARE(readSettings(write(QString(QTest::currentDataTag()) + ".ini", file), {}).errors,
             QStringList(error));
}

void tst_Gateway_settings::aFileThatIsNotThereIsTold()
{
    const auto read = readSettings(m_folder.filePath("none.ini"), {});
    QCOMPARE(read.errors, QStringList(m_folder.filePath("none.ini") + ": No such file or directory"));
}

void tst_Gateway_settings::usersMayWriteWhatTheirPatternsSay()
{
    Settings settings;
    settings.write.users = {{"ann", {"motor.*", "pump.o?"}}, {"root", {"*"}}};
    QVERIFY(settings.obeysSomebody());
    QVERIFY(settings.mayWrite("ann", "motor.speed"));
    QVERIFY(settings.mayWrite("ann", "motor.a.b/c"));
    QVERIFY(settings.mayWrite("ann", "pump.on"));
    QVERIFY(!settings.mayWrite("ann", "pump.off"));
    QVERIFY(!settings.mayWrite("ann", "motor"));
    QVERIFY(!settings.mayWrite("ann", "xmotor.speed"));
    QVERIFY(!settings.mayWrite("bob", "motor.speed"));
    QVERIFY(!settings.mayWrite("", "motor.speed"));
    QVERIFY(settings.mayWrite("root", "a\\.b"));
}

QTEST_APPLESS_MAIN(tst_Gateway_settings)
#include "tst_gateway_settings.moc"
