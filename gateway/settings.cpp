#include "gateway/settings.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QUrl>

#include <fnmatch.h>

#include <functional>

namespace Gateway
{

namespace
{

// What becomes of a key's text: an error in words, or nothing.
using Take = std::function<QString(const QString &text)>;

Take s_text(QString &value)
{
    return [&value](const QString &text) {
        value = text;
        return QString();
    };
}

Take s_number(int &value, int low, int high)
{
    return [&value, low, high](const QString &text) {
        bool isNumber = false;
        value = text.toInt(&isNumber);
        return isNumber && value >= low && value <= high
                   ? QString()
                   : QString("must be a whole number from %1 to %2, and is \"%3\"")
                         .arg(low)
                         .arg(high)
                         .arg(text);
    };
}

Take s_flag(bool &value)
{
    return [&value](const QString &text) {
        value = text == "true";
        return value || text == "false" ? QString() : "must be true or false, and is \"" + text + '"';
    };
}

// What topics begin with: levels that are not empty, without wildcards.
Take s_prefix(QString &value)
{
    return [&value](const QString &text) {
        value = text;
        const bool isPrefix = !text.split('/').contains("") && !text.contains('+') && !text.contains('#');
        return isPrefix ? QString()
                        : "must be names with / between them, without + and #, and is \"" + text + '"';
    };
}

Take s_version(int &value)
{
    return [&value](const QString &text) {
        value = text == "5" ? 5 : 3;
        return text == "5" || text == "3.1.1" ? QString() : "must be 3.1.1 or 5, and is \"" + text + '"';
    };
}

QStringList s_parts(const QString &text)
{
    QStringList parts;
    for (const QString &part : text.split(',')) {
        parts << part.trimmed();
    }
    return parts;
}

bool s_isBroker(const QString &text)
{
    const QUrl url(text, QUrl::StrictMode);
    const bool isKnown = url.scheme() == "mqtt" || url.scheme() == "mqtts";
    return isKnown && !url.host().isEmpty() && url.userInfo().isEmpty() && url.path().isEmpty();
}

Take s_urls(QStringList &value)
{
    return [&value](const QString &text) {
        value = s_parts(text);
        for (const QString &url : value) {
            if (!s_isBroker(url)) {
                return "must be mqtt://host or mqtts://host, and has \"" + url + '"';
            }
        }
        return QString();
    };
}

Take s_users(QMap<QString, QStringList> &value)
{
    return [&value](const QString &text) {
        value.clear();
        for (const QString &part : s_parts(text)) {
            const QString name = part.section(':', 0, 0).trimmed();
            const QStringList patterns = part.section(':', 1).split(' ', Qt::SkipEmptyParts);
            if (name.isEmpty() || patterns.isEmpty()) {
                return "must be NAME: PATTERN ..., and has \"" + part + '"';
            }
            value[name] << patterns;
        }
        return QString();
    };
}

// The path of a file, or of a credential.
Take s_file(QString &value, const QString &credentials)
{
    return [&value, credentials](const QString &text) {
        const bool isCredential = !text.contains('/');
        value = isCredential ? QDir(credentials).filePath(text) : text;
        if (isCredential && credentials.isEmpty()) {
            return "names the credential \"" + text +
                   "\", and there are none: see LoadCredential in systemd.exec(5)";
        }
        QFile file(value);
        return file.open(QIODevice::ReadOnly) ? QString() : value + ": " + file.errorString();
    };
}

Take s_password(QByteArray &value, const QString &credentials)
{
    return [&value, credentials](const QString &text) {
        QString path;
        QString error = s_file(path, credentials)(text);
        QFile file(path);
        if (error.isEmpty() && file.open(QIODevice::ReadOnly)) {
            value = file.readLine().trimmed();
        }
        return error;
    };
}

// All keys, with their sections.
QMap<QString, Take> s_keys(Settings &settings, const QString &credentials)
{
    auto &broker = settings.broker;
    return {
        {"broker/url", s_urls(broker.urls)},
        {"broker/version", s_version(broker.version)},
        {"broker/user", s_text(broker.user)},
        {"broker/password_file", s_password(broker.password, credentials)},
        {"broker/ca", s_file(broker.ca, credentials)},
        {"broker/certificate", s_file(broker.certificate, credentials)},
        {"broker/key", s_file(broker.key, credentials)},
        {"broker/client_id", s_text(broker.clientId)},
        {"broker/keepalive_s", s_number(broker.keepalive, 1, 3600)},
        {"topics/prefix", s_prefix(settings.topics.prefix)},
        {"topics/id", s_text(settings.topics.id)},
        {"daemon/address", s_text(settings.daemon.address)},
        {"schema/file", s_text(settings.schema.file)},
        {"schema/defend", s_flag(settings.schema.defend)},
        {"schema/accept", s_flag(settings.schema.accept)},
        {"values/interval_ms", s_number(settings.values.interval, 0, 60'000)},
        {"values/bytes", s_number(settings.values.bytes, 256, 1 << 20)},
        {"now/interval_ms", s_number(settings.now.interval, 0, 3'600'000)},
        {"write/users", s_users(settings.write.users)},
        {"write/max_age_s", s_number(settings.write.maxAge, 1, 3600)},
        {"spool/megabytes", s_number(settings.spool.megabytes, 1, 10'000)},
        {"homeassistant/enabled", s_flag(settings.homeAssistant.enabled)},
        {"homeassistant/prefix", s_prefix(settings.homeAssistant.prefix)},
        {"homeassistant/user", s_text(settings.homeAssistant.user)},
        {"metrics/port", s_number(settings.metrics.port, 0, 65535)},
    };
}

// What only shows when all is read.
QString s_contradiction(const Settings &settings)
{
    const QString &user = settings.homeAssistant.user;
    if (!user.isEmpty() && !settings.write.users.contains(user)) {
        return "[homeassistant] user: \"" + user + "\" is none of [write] users";
    }
    if (settings.broker.certificate.isEmpty() != settings.broker.key.isEmpty()) {
        return "[broker] certificate and key: one is not of use without the other";
    }
    return {};
}

// Qt splits at commas.
QString s_whole(const QVariant &value)
{
    return value.toStringList().join(", ").trimmed();
}

QString s_shown(const QString &key)
{
    return key.contains('/') ? '[' + key.section('/', 0, 0) + "] " + key.section('/', 1) : key;
}

} // namespace

bool Settings::mayWrite(const QString &user, const QString &path) const
{
    const QByteArray written = path.toUtf8();
    for (const QString &pattern : write.users.value(user)) {
        if (fnmatch(pattern.toUtf8().constData(), written.constData(), FNM_NOESCAPE) == 0) {
            return true;
        }
    }
    return false;
}

ReadSettings readSettings(const QString &fileName, const QString &credentials)
{
    ReadSettings read;
    QFile probe(fileName);
    if (!probe.open(QIODevice::ReadOnly)) {
        read.errors << fileName + ": " + probe.errorString();
        return read;
    }
    QSettings file(fileName, QSettings::IniFormat);
    file.setIniCodec("UTF-8");
    const QMap<QString, Take> known = s_keys(read.settings, credentials);
    for (const QString &key : file.allKeys()) {
        const QString text = s_whole(file.value(key));
        if (!known.contains(key)) {
            read.errors << s_shown(key) + ": no such setting";
        } else if (const QString error = text.isEmpty() ? QString() : known[key](text); !error.isEmpty()) {
            read.errors << s_shown(key) + ' ' + error;
        }
    }
    if (file.status() != QSettings::NoError) {
        read.errors << fileName + ": not a file of [section] and key = value";
    }
    if (const QString error = s_contradiction(read.settings); read.errors.isEmpty() && !error.isEmpty()) {
        read.errors << error;
    }
    return read;
}

} // namespace Gateway
