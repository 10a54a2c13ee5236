#include "gateway/savedfile.h"

#include <QSaveFile>

namespace Gateway
{

QString saveFile(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    // Only flush() says that a disk is full: commit() would put half of it in place.
    const bool isSaved = file.open(QIODevice::WriteOnly) && file.write(content) == content.size() &&
                         file.flush() && file.commit();
    return isSaved ? QString() : path + ": " + file.errorString();
}

} // namespace Gateway
