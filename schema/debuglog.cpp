#include "schema/debuglog.h"

#include <QIODevice>
#include <QTextCodec>
#include <QTextStream>

#include <algorithm>

namespace
{

// Keeps the beginning of what is written to it and drops the rest.
class Beginning : public QIODevice
{
public:
    Beginning() { open(QIODevice::WriteOnly); }

    QByteArray kept;
    bool isCut = false;

protected:
    qint64 readData(char *, qint64) override { return -1; }

    qint64 writeData(const char *bytes, qint64 size) override
    {
        const qint64 room = keptMax - kept.size();
        kept.append(bytes, static_cast<int>(std::min(room, size)));
        isCut = isCut || size > room;
        return size;
    }

private:
    static constexpr int keptMax = 64 * 1024;
};

QTextCodec *s_utf8()
{
    static QTextCodec *const utf8 = QTextCodec::codecForName("UTF-8");
    return utf8;
}

QTextStream &s_inUtf8(QTextStream &stream)
{
    stream.setCodec(s_utf8());
    return stream;
}

template <typename T>
QString s_debugText(const T &value)
{
    Beginning text;
    QDebug(&text).nospace() << s_inUtf8 << value; // complete when the QDebug is gone

    // The decoder leaves out a character of which only the first bytes were kept.
    QTextCodec::ConverterState state;
    const QString decoded = s_utf8()->toUnicode(text.kept.constData(), text.kept.size(), &state);
    return text.isCut ? decoded + QStringLiteral(" ...") : decoded;
}

} // namespace

QString debugText(const QVariant &value)
{
    return s_debugText(value);
}

QString debugText(const QVariantMap &value)
{
    return s_debugText(value);
}
