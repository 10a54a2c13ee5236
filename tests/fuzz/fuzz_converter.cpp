// A schema, a stream of frames and a client's message, all hostile: the converter answers, only with what it
// may answer, and writes no more lines about it than one message may cause.
//
// Input: the schema's text up to the first newline; a byte with the number of frames; for each of them mac,
// cmd (bytes), the payload's length (low four bits) and the payload; the rest is the client's message.
#include "msgpack/msgpack.h"
#include "schema/schemaconverter.h"
#include "service/typedarrays.h"
#include "tests/fuzz/fuzzing.h"

#include <QJsonDocument>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <sanitizer/lsan_interface.h>

namespace
{

// Takes bytes from the front of the input; what is missing reads as nothing.
class Input
{
public:
    explicit Input(const QByteArray &bytes) : m_bytes(bytes) {}

    QByteArray line()
    {
        const int end = m_bytes.indexOf('\n');
        const QByteArray line = take(end < 0 ? m_bytes.size() : end);
        take(1);
        return line;
    }

    unsigned byte()
    {
        const QByteArray taken = take(1);
        return taken.isEmpty() ? 0 : static_cast<unsigned char>(taken.at(0));
    }

    QByteArray take(int count)
    {
        const QByteArray taken = m_bytes.left(count);
        m_bytes.remove(0, count);
        return taken;
    }

    QByteArray rest() { return take(m_bytes.size()); }

private:
    QByteArray m_bytes;
};

// Qt's parser loses an object or a list that a later member of the same name replaces; what is allocated here
// is not looked for.
QJsonDocument s_parsed(const QByteArray &text)
{
    const __lsan::ScopedDisabler disabler;
    return QJsonDocument::fromJson(text);
}

// Nothing but std::runtime_error("Bad type") may leave the converter. Returns whether that did.
template <typename Call>
bool s_throwsBadType(const Call &call)
{
    try {
        call();
    } catch (const std::runtime_error &error) {
        Fuzzing::require(std::strcmp(error.what(), "Bad type") == 0, "another error than bad type");
        return true;
    }
    return false;
}

void s_insertFrame(SchemaConverter &converter, Input &input)
{
    const Fuzzing::LineBound bound;
    const auto mac = static_cast<quint16>(input.byte() & 0x3F);
    const auto cmd = static_cast<quint16>(input.byte() & 0x1F);
    // A copy of exactly this size, so that a read past the end is found.
    const QByteArray payload = input.take(static_cast<int>(input.byte() & 0x0F));
    const std::vector<char> exact(payload.cbegin(), payload.cend());
    const QByteArray view = QByteArray::fromRawData(exact.data(), static_cast<int>(exact.size()));
    const bool thrown = s_throwsBadType([&] {
        const int status = converter.insertFrame(VEKEndpoint(mac, cmd, false), view);
        Fuzzing::require(status == 1 || status == 2, "no such status");
    });
    Fuzzing::require(!thrown || payload.isEmpty(),
                     "a payload with bytes made it throw"); // only the end of a packed value throws
}

template <typename Element>
int s_elements(const QVariant &value)
{
    return value.userType() == qMetaTypeId<QVector<Element>>() ? value.value<QVector<Element>>().size() : 0;
}

// The readings in the longest array within `value`.
int s_longestArray(const QVariant &value)
{
    int longest =
        std::max({s_elements<char>(value), s_elements<unsigned char>(value), s_elements<short>(value),
                  s_elements<unsigned short>(value), s_elements<int>(value), s_elements<unsigned int>(value),
                  s_elements<float>(value)});
    for (const QVariant &member : value.toMap()) {
        longest = std::max(longest, s_longestArray(member));
    }
    return longest;
}

// Packs what is ready, as for clients; every other time by force. No leaf has more than a reading per frame.
void s_take(SchemaConverter &converter, bool force, unsigned frames)
{
    const Fuzzing::LineBound bound;
    const QVariant value = converter.takeVariantToSend(force);
    MsgPack::pack(value);
    Fuzzing::require(s_longestArray(value) <= static_cast<int>(frames), "more readings than frames");
    Fuzzing::require(!converter.takeVariantToSend(force).isValid(), "taken twice");
}

void s_checkRecords(const QByteArray &records)
{
    Fuzzing::require(records.size() % VEK_FRAME_SIZE == 0, "a broken record");
    for (int at = 0; at < records.size(); at += VEK_FRAME_SIZE) {
        vek_frame_t frame;
        std::memcpy(&frame, records.constData() + at, sizeof frame);
        const std::uint16_t header = vek_frame_header(frame);
        Fuzzing::require(vek_frame_is_valid(&frame), "a record without its checksum");
        Fuzzing::require(vek_header_rtr(header) == 0, "a remote request");
        Fuzzing::require(vek_header_dlc(header) >= 1 && vek_header_dlc(header) <= VEK_FRAME_DATA_SIZE,
                         "no possible length");
    }
}

// 4 MiB of payload in frames of eight bytes, and a shorter frame for each of the endpoints, every one of
// which takes a byte of the message at least.
int s_recordsMax(const QByteArray &message)
{
    return (4 * 1024 * 1024 / VEK_FRAME_DATA_SIZE + message.size()) * VEK_FRAME_SIZE;
}

void s_send(SchemaConverter &converter, const QByteArray &message)
{
    const Fuzzing::LineBound bound;
    const QVariant value = MsgPack::unpack(message);
    QByteArray records;
    const bool thrown = s_throwsBadType([&] { records = converter.toFrame(value); });
    Fuzzing::require(records.size() <= s_recordsMax(message), "more payload than one message may have");
    Fuzzing::require(thrown == (value.userType() != QMetaType::QVariantMap),
                     "maps convert, nothing else does"); // codec and JSON make no other maps
    s_checkRecords(records);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    registerTypedArrays();
    Fuzzing::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input(Fuzzing::bytes(data, size));
    SchemaConverter converter;
    int signalled = 0;
    QObject::connect(&converter, &SchemaConverter::variantToSend, [&signalled] { ++signalled; });

    converter.loadSchema(s_parsed(input.line()));
    const unsigned frames = input.byte();
    for (unsigned i = 0; i < frames; ++i) {
        signalled = 0;
        s_insertFrame(converter, input);
        Fuzzing::require(signalled <= 1, "signalled twice");
        if (signalled == 1 && i % 3 != 0) {
            s_take(converter, i % 3 == 1, i + 1);
        }
    }
    const QByteArray message = input.rest();
    s_send(converter, message);
    s_take(converter, false, frames);
    s_take(converter, true, frames);
    converter.dump();
    converter.loadSchema(QJsonDocument());
    Fuzzing::require(!converter.takeVariantToSend(true).isValid(), "values outlived their schema");
    return 0;
}
