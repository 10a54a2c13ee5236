// Files that are replaced as a whole, or stay as they were.
#pragma once

#include <QByteArray>
#include <QString>

namespace Gateway
{

// Puts content into a file, which need not be there. Empty, or why it is not on the disk.
QString saveFile(const QString &path, const QByteArray &content);

} // namespace Gateway
