#include "vorbel/words_p.h"

#include "vorbel/plain_p.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QLocale>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

namespace Vorbel
{

namespace
{

constexpr int quotedMax = 40; // characters

// How many letters must be put in, left out or exchanged to turn one word into the other.
int s_distance(const QString &one, const QString &other)
{
    std::vector<int> row(static_cast<std::size_t>(other.size()) + 1);
    std::iota(row.begin(), row.end(), 0);
    for (const QChar letter : one) {
        int diagonal = row[0]++;
        for (std::size_t at = 1; at < row.size(); ++at) {
            const int exchanged = diagonal + (letter == other.at(static_cast<int>(at) - 1) ? 0 : 1);
            diagonal = row[at];
            row[at] = std::min({row[at] + 1, row[at - 1] + 1, exchanged});
        }
    }
    return row.back();
}

// Documents hold arrays only: the brackets go.
QString s_json(const QVariant &value)
{
    const QJsonArray array{QJsonValue::fromVariant(value)};
    const QByteArray text = QJsonDocument(array).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(text.mid(1, text.size() - 2));
}

} // namespace

QString quoted(const QVariant &value)
{
    const QString text = isNumber(value) ? numberText(value.toDouble()) : s_json(value);
    return text.size() <= quotedMax ? text : text.left(quotedMax - 3) + QStringLiteral("...");
}

QString numberText(double number)
{
    constexpr double wholeMax = 1e15;
    const bool isWhole = std::abs(number) < wholeMax && number == std::floor(number);
    return isWhole ? QString::number(number, 'f', 0)
                   : QString::number(number, 'g', QLocale::FloatingPointShortest);
}

QString listed(const QStringList &names)
{
    return QLatin1Char('"') + names.join(QStringLiteral("\", \"")) + QLatin1Char('"');
}

QString suggestion(const QString &word, const QStringList &known)
{
    const QString sought = word.toLower();
    int least = std::max(1, sought.size() / 3) + 1;
    QString nearest;
    for (const QString &each : known) {
        const int distance = s_distance(sought, each.toLower());
        if (distance < least) {
            least = distance;
            nearest = each;
        }
    }
    return nearest.isNull() ? QString() : QStringLiteral(" (did you mean \"%1\"?)").arg(nearest);
}

} // namespace Vorbel
