#include "gateway/savedfile.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <fcntl.h>
#include <unistd.h>

namespace Gateway
{

namespace
{

// A file that has just been renamed is on the disk under its former name until the folder is written, too. If
// the power is lost before, it was never saved. A folder that cannot be synced is left to the file system.
void s_syncFolderOf(const QString &path)
{
    const QByteArray name = QFile::encodeName(QFileInfo(path).path());
    const int folder = open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        fsync(folder);
        close(folder);
    }
}

} // namespace

QString saveFile(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    // Only flush() says that a disk is full: commit() would put half of it in place.
    const bool isSaved = file.open(QIODevice::WriteOnly) && file.write(content) == content.size() &&
                         file.flush() && file.commit();
    if (isSaved) {
        s_syncFolderOf(path);
    }
    return isSaved ? QString() : path + ": " + file.errorString();
}

} // namespace Gateway
