#include "schema/debuglog.h"

#include <QIODevice>
#include <QTextCodec>
#include <QTextStream>

#include <algorithm>

namespace
{

// Keeps the first 64 KiB of what is written to it and drops the rest.
class CappedBuffer : public QIODevice
{
public:
    CappedBuffer() { open(QIODevice::WriteOnly); }

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

// Prints values as QDebug does, but stops going through lists and maps when enough is printed. What one value
// printed may wait in the stream for a while; a few thousand values later it has arrived.
//
// A list within a list is printed by a call within a call. They end with the room for the text, of which each
// takes over 20 bytes before it makes the next.
class Printer
{
public:
    explicit Printer(CappedBuffer &text) : m_text(text), m_out(&text) { m_out.nospace() << s_inUtf8; }

    void print(const QVariant &value)
    {
        if (value.userType() == QMetaType::QVariantMap) {
            m_out << "QVariant(QVariantMap, ";
            print(*static_cast<const QVariantMap *>(value.constData()));
            m_out << ')';
        } else if (value.userType() == QMetaType::QVariantList) {
            m_out << "QVariant(QVariantList, ";
            print(*static_cast<const QVariantList *>(value.constData()));
            m_out << ')';
        } else {
            m_out << value;
        }
    }

    void print(const QVariantMap &map)
    {
        m_out << "QMap(";
        for (auto member = map.cbegin(); member != map.cend() && !m_text.isCut; ++member) {
            m_out << '(' << member.key() << ", ";
            print(*member);
            m_out << ')';
        }
        m_out << ')';
    }

    void print(const QVariantList &list)
    {
        m_out << '(';
        for (int i = 0; i < list.size() && !m_text.isCut; ++i) {
            m_out << (i == 0 ? "" : ", ");
            print(list.at(i));
        }
        m_out << ')';
    }

private:
    CappedBuffer &m_text;
    QDebug m_out;
};

template <typename T>
QString s_debugText(const T &value)
{
    CappedBuffer text;
    Printer(text).print(value); // complete when the printer is gone

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
