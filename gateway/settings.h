// What /etc/vorbel/gateway.ini says.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

namespace Gateway
{

// Of gateway.ini, section by section; gateway/gateway.ini explains them all.
struct Settings {
    struct {
        QStringList urls{"mqtt://127.0.0.1"}; // one or more, mqtt:// or mqtts://
        int version = 5;                      // 5, or 3 for 3.1.1
        QString user;
        QByteArray password;
        QString ca, certificate, key; // paths, empty for none
        QString clientId;             // empty for PREFIX-ID
        int keepalive = 5;            // seconds
    } broker;

    struct {
        QString prefix = "vorbel";
        QString id; // empty for what the daemon says
    } topics;

    struct {
        QString address = "127.0.0.1";
    } daemon;

    struct {
        QString file;
        bool defend = false;
        bool accept = false;
    } schema;

    struct {
        int interval = 1000; // ms
        int bytes = 65536;
    } values;

    struct {
        int interval = 1000; // ms
    } now;

    struct {
        QMap<QString, QStringList> users; // the patterns of paths that each may write
        int maxAge = 10;                  // seconds
    } write;

    struct {
        int megabytes = 100;

        qint64 bytes() const { return megabytes * 1'000'000LL; }
    } spool;

    struct {
        bool enabled = false;
        QString prefix = "homeassistant";
        QString user;
    } homeAssistant;

    struct {
        int port = 0; // 0: none
    } metrics;

    // Whether anything that comes from the broker may change something.
    bool obeysSomebody() const { return !write.users.isEmpty() || schema.accept; }

    // Whether a user may write a dotted path.
    bool mayWrite(const QString &user, const QString &path) const;
};

// Settings, and everything that is wrong with them, in words; they count only if nothing is.
struct ReadSettings {
    Settings settings;
    QStringList errors;
};

// What a file says. Names of files without a slash are those of credentials, which are in a folder of their
// own.
ReadSettings readSettings(const QString &fileName, const QString &credentials);

} // namespace Gateway
