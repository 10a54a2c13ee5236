#include "vorbel/jsontext_p.h"

#include "vorbel/paths.h"

#include <algorithm>

namespace Vorbel
{

namespace
{

constexpr int depthMax = 1024;

// Reads along a text. Each function stands before what it reads and leaves the position behind it; after an
// error nothing more is read.
class Reader
{
public:
    explicit Reader(const QString &text) : m_text(text) {}

    JsonText read()
    {
        JsonText result;
        result.value = readValue();
        skipBlanks();
        if (m_error.isNull() && m_at != m_text.size()) {
            fail(QStringLiteral("nothing more is expected"));
        }
        result.error = m_error;
        result.repeated = m_repeated;
        return result;
    }

private:
    QVariant readValue()
    {
        skipBlanks();
        const QChar first = peek();
        if (first == QLatin1Char('{') || first == QLatin1Char('[')) {
            return readContainer(first == QLatin1Char('{'));
        }
        if (first == QLatin1Char('"')) {
            return readText();
        }
        return first == QLatin1Char('-') || first.isDigit() ? readNumber() : readWord();
    }

    QVariant readContainer(bool isObject)
    {
        if (++m_depth > depthMax) {
            return fail(QStringLiteral("nested too deep to be read"));
        }
        ++m_at;
        QVariant container = isObject ? QVariant(readMembers()) : QVariant(readElements());
        --m_depth;
        return container;
    }

    QVariantMap readMembers()
    {
        QVariantMap members;
        if (take(QLatin1Char('}'))) {
            return members;
        }
        do {
            skipBlanks();
            const QString name = readText();
            expect(QLatin1Char(':'), QStringLiteral("a colon is expected"));
            m_names << name;
            if (members.contains(name)) {
                m_repeated << joinPath(m_names);
            }
            members.insert(name, readValue());
            m_names.removeLast();
        } while (m_error.isNull() && take(QLatin1Char(',')));
        expect(QLatin1Char('}'), QStringLiteral("a comma or a closing brace is expected"));
        return members;
    }

    QVariantList readElements()
    {
        QVariantList elements;
        if (take(QLatin1Char(']'))) {
            return elements;
        }
        do {
            elements << readValue();
        } while (m_error.isNull() && take(QLatin1Char(',')));
        expect(QLatin1Char(']'), QStringLiteral("a comma or a closing bracket is expected"));
        return elements;
    }

    QString readText()
    {
        if (!take(QLatin1Char('"'))) {
            fail(QStringLiteral("a name in quotes is expected"));
            return QString();
        }
        QString text = QLatin1String("");
        while (m_error.isNull() && peek() != QLatin1Char('"')) {
            if (peek() < QLatin1Char(' ')) { // the end, too
                fail(QStringLiteral("the text does not end"));
            } else if (peek() == QLatin1Char('\\')) {
                text += readEscape();
            } else {
                text += m_text.at(m_at++);
            }
        }
        ++m_at;
        return text;
    }

    QChar readEscape()
    {
        static const QString marks = QStringLiteral("\"\\/bfnrt");
        static const QString meant = QStringLiteral("\"\\/\b\f\n\r\t");
        ++m_at;
        const int known = peek().isNull() ? -1 : marks.indexOf(peek());
        if (known >= 0) {
            ++m_at;
            return meant.at(known);
        }
        if (peek() != QLatin1Char('u') || !isHexadecimal(m_text.midRef(m_at + 1, 4))) {
            fail(QStringLiteral("a backslash that escapes nothing"));
            return QChar();
        }
        m_at += 5;
        return m_text.midRef(m_at - 4, 4).toUShort(nullptr, 16);
    }

    // Qt's own functions know more ways to write a number than JSON does.
    QVariant readNumber()
    {
        const int begin = m_at;
        const int digits = begin + (peek() == QLatin1Char('-') ? 1 : 0);
        const int count = digitsAt(digits);
        if (count == 0) {
            return fail(QStringLiteral("a number is expected"));
        }
        m_at = digits + (m_text.at(digits) == QLatin1Char('0') ? 1 : count);
        skipPart(QStringLiteral("."), QString());
        skipPart(QStringLiteral("eE"), QStringLiteral("+-"));
        const QStringRef number = m_text.midRef(begin, m_at - begin);
        bool isWhole = false;
        const qlonglong whole = number.toLongLong(&isWhole);
        return isWhole ? QVariant(whole) : QVariant(number.toDouble()); // infinite if it is beyond any
    }

    // A part of a number: one of the marks, a sign if there may be one, and digits.
    void skipPart(const QString &marks, const QString &signs)
    {
        if (!isOneOf(marks, m_at)) {
            return;
        }
        const int digits = m_at + (isOneOf(signs, m_at + 1) ? 2 : 1);
        if (const int count = digitsAt(digits); count > 0) {
            m_at = digits + count;
        }
    }

    bool isOneOf(const QString &characters, int at) const
    {
        return at < m_text.size() && characters.contains(m_text.at(at));
    }

    int digitsAt(int at) const
    {
        const auto begin = m_text.begin() + std::min(at, m_text.size());
        const auto isDigit = [](QChar character) {
            return character >= '0' && character <= '9';
        };
        return static_cast<int>(std::find_if_not(begin, m_text.end(), isDigit) - begin);
    }

    static bool isHexadecimal(const QStringRef &unit)
    {
        static const QString known = QStringLiteral("0123456789abcdefABCDEF");
        return unit.size() == 4 && std::all_of(unit.begin(), unit.end(),
                                               [](QChar character) { return known.contains(character); });
    }

    QVariant readWord()
    {
        static const QVector<QPair<QString, QVariant>> words{{QStringLiteral("true"), true},
                                                             {QStringLiteral("false"), false},
                                                             {QStringLiteral("null"), QVariant()}};
        for (const auto &word : words) {
            if (m_text.midRef(m_at, word.first.size()) == word.first) {
                m_at += word.first.size();
                return word.second;
            }
        }
        return fail(QStringLiteral("a value is expected"));
    }

    // The next character; null at the end, and in its place in a text, where JSON has none either.
    QChar peek() const { return m_at < m_text.size() ? m_text.at(m_at) : QChar(); }

    void skipBlanks()
    {
        while (m_at < m_text.size() && QStringLiteral(" \t\r\n").contains(m_text.at(m_at))) {
            ++m_at;
        }
    }

    bool take(QChar character)
    {
        skipBlanks();
        if (peek() != character || peek().isNull()) {
            return false;
        }
        ++m_at;
        return true;
    }

    void expect(QChar character, const QString &words)
    {
        if (m_error.isNull() && !take(character)) {
            fail(words);
        }
    }

    // Notes the first error and ends the reading.
    QVariant fail(const QString &words)
    {
        if (m_error.isNull()) {
            const QStringRef before = m_text.leftRef(m_at);
            const int line = before.count(QLatin1Char('\n')) + 1;
            const int column = m_at - before.lastIndexOf(QLatin1Char('\n'));
            m_error = QStringLiteral("line %1, column %2: %3").arg(line).arg(column).arg(words);
        }
        m_at = m_text.size();
        return QVariant();
    }

    const QString m_text;
    int m_at = 0;
    int m_depth = 0;
    QStringList m_names; // of the members around the position
    QStringList m_repeated;
    QString m_error;
};

} // namespace

JsonText readJson(const QString &text)
{
    return Reader(text).read();
}

} // namespace Vorbel
