/// @file
/// Where a daemon is.
#pragma once

#include <QString>
#include <QUrl>

namespace Vorbel
{

/// The port of a daemon that sits behind no proxy.
constexpr int defaultPort = 10443;

/// The URL of an address as people type it: a host, host:port or a whole ws:// or wss:// URL, which may hold
/// a user and a password. An invalid URL for anything else.
QUrl urlOf(const QString &address);

/// The address for messages, which end up in logs and on screens: without user and password.
QString shownAddress(const QUrl &url);

} // namespace Vorbel
