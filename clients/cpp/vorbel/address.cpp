#include "vorbel/address.h"

namespace Vorbel
{

QUrl urlOf(const QString &address)
{
    const bool hasScheme = address.contains(QStringLiteral("://"));
    const bool isBareIpv6 =
        !hasScheme && address.count(QLatin1Char(':')) > 1 && !address.contains(QLatin1Char('['));
    const QString host = isBareIpv6 ? QLatin1Char('[') + address + QLatin1Char(']') : address;
    QUrl url(hasScheme ? host : QStringLiteral("ws://") + host, QUrl::StrictMode);
    const bool isWebSocket = url.scheme() == QLatin1String("ws") || url.scheme() == QLatin1String("wss");
    if (!url.isValid() || !isWebSocket || url.host().isEmpty()) {
        return QUrl();
    }
    if (!hasScheme && url.port() < 0) {
        url.setPort(defaultPort);
    }
    url.setFragment(QString());
    return url;
}

QString shownAddress(const QUrl &url)
{
    return url.toString(QUrl::RemoveUserInfo);
}

} // namespace Vorbel
