#include "bench/codec_msgpackcxx.h"

#include <QVector>

#include <msgpack.hpp>

namespace
{

using Packer = msgpack::packer<msgpack::sbuffer>;

void s_pack(Packer &packer, const StandardValue &value);

struct PackHeld {
    Packer &packer;

    template <class Scalar>
    void operator()(const Scalar &scalar) const
    {
        packer.pack(scalar);
    }

    void operator()(std::monostate) const { packer.pack_nil(); }

    void operator()(const std::vector<char> &bytes) const
    {
        packer.pack_bin(static_cast<uint32_t>(bytes.size()));
        packer.pack_bin_body(bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    void operator()(const std::vector<short> &elements) const
    {
        const size_t size = elements.size() * sizeof(short);
        packer.pack_ext(size, 19);
        packer.pack_ext_body(reinterpret_cast<const char *>(elements.data()), static_cast<uint32_t>(size));
    }

    void operator()(const StandardValue::List &list) const
    {
        packer.pack_array(static_cast<uint32_t>(list.size()));
        for (const StandardValue &element : list) {
            s_pack(packer, element);
        }
    }

    void operator()(const StandardValue::Map &map) const
    {
        packer.pack_map(static_cast<uint32_t>(map.size()));
        for (const auto &[key, member] : map) {
            packer.pack(key);
            s_pack(packer, member);
        }
    }
};

void s_pack(Packer &packer, const StandardValue &value)
{
    std::visit(PackHeld{packer}, value.held);
}

StandardValue::List s_toList(const QVariantList &elements)
{
    StandardValue::List list;
    for (const QVariant &element : elements) {
        list.push_back(toStandardValue(element));
    }
    return list;
}

StandardValue::Map s_toMap(const QVariantMap &entries)
{
    StandardValue::Map map;
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        map.emplace(entry.key().toStdString(), toStandardValue(entry.value()));
    }
    return map;
}

} // namespace

StandardValue toStandardValue(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::UnknownType:
        return {};
    case QMetaType::Bool:
        return {value.toBool()};
    case QMetaType::Int:
        return {value.toInt()};
    case QMetaType::LongLong:
        return {value.toLongLong()};
    case QMetaType::Float:
        return {value.toFloat()};
    case QMetaType::Double:
        return {value.toDouble()};
    case QMetaType::QString:
        return {value.toString().toStdString()};
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        return {std::vector<char>(bytes.cbegin(), bytes.cend())};
    }
    case QMetaType::QVariantList:
        return {s_toList(value.toList())};
    case QMetaType::QVariantMap:
        return {s_toMap(value.toMap())};
    default:
        const auto elements = value.value<QVector<short>>();
        return {std::vector<short>(elements.cbegin(), elements.cend())};
    }
}

size_t packWithMsgpackCxx(const StandardValue &value)
{
    msgpack::sbuffer buffer;
    Packer packer(buffer);
    s_pack(packer, value);
    return buffer.size();
}

int unpackWithMsgpackCxx(const char *bytes, size_t size)
{
    return msgpack::unpack(bytes, size).get().type;
}
