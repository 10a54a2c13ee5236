#include "bench/codec_cases.h"

#include "msgpack/msgpack.h"
#include "service/typedarrays.h"

#include <QVector>

#include <cstring>

namespace
{

constexpr qint8 shortArrayType = 19;

QVariant s_shortArray(const QByteArray &payload)
{
    QVector<short> elements(payload.size() / static_cast<int>(sizeof(short)));
    qFromLittleEndian<short>(payload.constData(), elements.size(), elements.data());
    return QVariant::fromValue(elements);
}

QVariant s_small()
{
    return QVariantMap{
        {"motor", QVariantMap{{"current", 12.5f}, {"speed", 1500}, {"running", true}}},
    };
}

QVariant s_leaves20()
{
    QVariantMap message;
    for (const char *part : {"battery", "charger", "inverter", "motor"}) {
        message.insert(part, QVariantMap{{"current", 12.5f},
                                         {"error", false},
                                         {"state", "running"},
                                         {"temperature", -21},
                                         {"voltage", 402000}});
    }
    return message;
}

QVariant s_array4k()
{
    QVector<short> samples;
    for (int i = 0; i < 2000; ++i) {
        samples.append(static_cast<short>(i * 31));
    }
    return QVariantMap{{"motor", QVariantMap{{"samples", QVariant::fromValue(samples)}}}};
}

QVariant s_record(int number)
{
    return QVariantMap{
        {"calibrated", number % 3 == 0},
        {"history", QVariantList{number, number * 300, -number * 70000, 0.25 * number}},
        {"label", QString::fromUtf8(u8"Außenfühler №%1").arg(number)},
        {"limits", QVariantMap{{"lower", -40}, {"upper", 125.5f}}},
        {"name", QString("sensor-%1").arg(number)},
        {"raw", QByteArray(number % 40, 'x')},
        {"serial", Q_INT64_C(5000000000) + number},
        {"unused", QVariant()},
    };
}

QVariant s_mixed100k()
{
    QVariantList records;
    for (int size = 0; size < 100000; size += MsgPack::pack(records.constLast()).size()) {
        records.append(s_record(records.size()));
    }
    return records;
}

QVariant s_ints100k()
{
    QVariantList ints;
    for (quint32 i = 0; i < 100000; ++i) {
        ints.append(static_cast<int>(i * 2654435761U) >> i % 4 * 8);
    }
    return ints;
}

template <class T>
const T &s_held(const QVariant &value)
{
    return *static_cast<const T *>(value.constData());
}

quint64 s_sum(const QString &string)
{
    quint64 sum = 0;
    for (const QChar c : string) {
        sum += c.unicode();
    }
    return sum;
}

quint64 s_scalarBits(const QVariant &value)
{
    quint64 bits = 0;
    if (value.isValid()) {
        std::memcpy(&bits, value.constData(), static_cast<size_t>(QMetaType::sizeOf(value.userType())));
    }
    return bits;
}

template <class T>
T s_scalar(quint64 bits)
{
    T scalar;
    std::memcpy(&scalar, &bits, sizeof scalar);
    return scalar;
}

} // namespace

std::vector<CodecCase> codecCases()
{
    registerTypedArrays();
    MsgPack::registerUnpacker(shortArrayType, s_shortArray);
    return {
        {"small", s_small()},         {"leaves20", s_leaves20()}, {"array4k", s_array4k()},
        {"mixed100k", s_mixed100k()}, {"ints100k", s_ints100k()},
    };
}

quint64 walk(const QVariant &value)
{
    quint64 sum = 0;
    switch (value.userType()) {
    case QMetaType::QVariantMap: {
        const auto &map = s_held<QVariantMap>(value);
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
            sum += s_sum(entry.key()) + walk(entry.value());
        }
        return sum;
    }
    case QMetaType::QVariantList:
        for (const QVariant &element : s_held<QVariantList>(value)) {
            sum += walk(element);
        }
        return sum;
    case QMetaType::QString:
        return s_sum(s_held<QString>(value));
    case QMetaType::QByteArray:
        return static_cast<quint64>(s_held<QByteArray>(value).size());
    case QMetaType::UnknownType:
        return 1;
    default:
        return *static_cast<const uchar *>(value.constData());
    }
}

Blueprint::Blueprint(const QVariant &value)
{
    add(value);
}

void Blueprint::add(const QVariant &value)
{
    const int metatype = value.userType();
    if (metatype == QMetaType::QVariantMap) {
        const QVariantMap map = value.toMap();
        m_steps.push_back({metatype, map.size(), 0, QByteArray()});
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
            add(entry.key());
            add(entry.value());
        }
    } else if (metatype == QMetaType::QVariantList) {
        const QVariantList list = value.toList();
        m_steps.push_back({metatype, list.size(), 0, QByteArray()});
        for (const QVariant &element : list) {
            add(element);
        }
    } else if (metatype == QMetaType::QString) {
        m_steps.push_back({metatype, 0, 0, value.toString().toUtf8()});
    } else if (metatype == QMetaType::QByteArray) {
        m_steps.push_back({metatype, 0, 0, value.toByteArray()});
    } else if (metatype == qMetaTypeId<QVector<short>>()) {
        QByteArray payload = TypedArrays::pack<short>(value);
        payload.detach(); // from `value`
        m_steps.push_back({metatype, 0, 0, payload});
    } else {
        m_steps.push_back({metatype, 0, s_scalarBits(value), QByteArray()});
    }
}

QVariant Blueprint::build() const
{
    const Step *step = m_steps.data();
    return build(step);
}

QVariant Blueprint::build(const Step *&step) const
{
    const Step &made = *step++;
    if (made.metatype == QMetaType::QVariantMap) {
        QVariantMap map;
        for (int i = 0; i < made.count; ++i) {
            const QByteArray &key = step++->bytes;
            map.insert(map.cend(), QString::fromUtf8(key.constData(), key.size()), build(step));
        }
        return map;
    }
    if (made.metatype == QMetaType::QVariantList) {
        QVariantList list;
        for (int i = 0; i < made.count; ++i) {
            list.append(build(step));
        }
        return list;
    }
    return buildLeaf(made);
}

QVariant Blueprint::buildLeaf(const Step &step)
{
    switch (step.metatype) {
    case QMetaType::UnknownType:
        return QVariant();
    case QMetaType::Bool:
        return s_scalar<bool>(step.number);
    case QMetaType::Int:
        return s_scalar<int>(step.number);
    case QMetaType::UInt:
        return s_scalar<uint>(step.number);
    case QMetaType::LongLong:
        return s_scalar<qlonglong>(step.number);
    case QMetaType::Float:
        return s_scalar<float>(step.number);
    case QMetaType::Double:
        return s_scalar<double>(step.number);
    case QMetaType::QString:
        return QString::fromUtf8(step.bytes.constData(), step.bytes.size());
    case QMetaType::QByteArray:
        return QByteArray(step.bytes.constData(), step.bytes.size());
    default:
        return s_shortArray(step.bytes);
    }
}
