#include "vorbel/problem.h"

#include <QStringList>

#include <algorithm>

namespace Vorbel
{

bool Problem::isError() const
{
    // Defined behaviour that is seldom meant; all others keep a schema from being sent.
    static const QStringList warnings{
        "beyond-frame", "leaf-in-leaf",        "long-format", "mixed-fragmentation", "no-cmd",
        "no-effect",    "option-without-sign", "overlap",     "packed-cut",          "write-only"};
    return !warnings.contains(code);
}

QString Problem::text() const
{
    const QString place = path.isEmpty() ? QStringLiteral("the root") : path;
    return place + (isError() ? QStringLiteral(": ") : QStringLiteral(": warning: ")) + message;
}

bool hasErrors(const QVector<Problem> &problems)
{
    return std::any_of(problems.cbegin(), problems.cend(),
                       [](const Problem &each) { return each.isError(); });
}

QString errorText(const QVector<Problem> &problems)
{
    QStringList texts;
    for (const Problem &problem : problems) {
        if (problem.isError()) {
            texts << problem.text();
        }
    }
    return texts.join(QStringLiteral("; "));
}

} // namespace Vorbel
