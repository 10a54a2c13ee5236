#include "vorbel/kinds_p.h"

#include "vorbel/words_p.h"

#include <cmath>

namespace Vorbel
{

bool isFiniteNumber(const QJsonValue &value)
{
    return value.isDouble() && std::isfinite(value.toDouble());
}

bool isWholeNumber(const QJsonValue &value)
{
    return isFiniteNumber(value) && value.toDouble() == std::floor(value.toDouble());
}

bool isText(const QJsonValue &value)
{
    return value.isString();
}

bool isTruth(const QJsonValue &value)
{
    return value.isBool();
}

Found misfit(const char *family, const QString &name, const Kind &kind, const QJsonValue &value)
{
    const auto told = [&](const char *what, const QString &expected) {
        return Found{
            QLatin1String(family) + QLatin1String(what),
            QStringLiteral("\"%1\" is %2: it must be %3").arg(name, quoted(value.toVariant()), expected)};
    };
    if (!kind.fits(value)) {
        return told("-type", QLatin1String(kind.words));
    }
    if (!kind.isInRange(value)) {
        return told("-range",
                    QStringLiteral("from %1 to %2").arg(numberText(kind.least), numberText(kind.largest)));
    }
    return {};
}

} // namespace Vorbel
