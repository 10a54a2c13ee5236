#include "vorbel/fields_p.h"

#include "vorbel/bits_p.h"
#include "vorbel/plain_p.h"
#include "vorbel/words_p.h"

#include <algorithm>

namespace Vorbel
{

namespace
{

constexpr int byteBits = 8;
constexpr quint32 byteMask = 0xff;

QPair<int, int> s_frameOf(const Leaf &leaf)
{
    return {leaf.cmd, leaf.mac};
}

QPair<int, qint64> s_place(const Leaf &leaf, int byte)
{
    return {leaf.cmd, qint64(leaf.mac) << 32 | quint32(leaf.skip + byte)};
}

// All bits of a leaf's bytes, in which a number stands.
SetBits s_allBits(const Leaf &leaf, quint32 number)
{
    return {~number & windowOf(leaf), number & windowOf(leaf)};
}

// The bits of the payload that a value becomes.
quint32 s_payload(const Written &written)
{
    return written.leaf.format == QLatin1Char('f') ? bitsOfSingle(written.raw) : bitsOf(written.raw);
}

Problem s_shared(const Leaf &leaf)
{
    return {leaf.path(), QStringLiteral("shared-bits"),
            QStringLiteral("has bits that another value of this message sets otherwise")};
}

} // namespace

void PayloadBits::add(const Leaf &leaf, const SetBits &bits)
{
    const SetBits known = within(leaf);
    replace(leaf, {known.zeros | bits.zeros, known.ones | bits.ones});
}

void PayloadBits::replace(const Leaf &leaf, const SetBits &bits)
{
    for (int byte = 0; byte < leaf.width(); ++byte) {
        m_bytes[s_place(leaf, byte)] = {bits.zeros >> byteBits * byte & byteMask,
                                        bits.ones >> byteBits * byte & byteMask};
    }
}

SetBits PayloadBits::within(const Leaf &leaf) const
{
    SetBits bits;
    for (int byte = 0; byte < leaf.width(); ++byte) {
        const SetBits known = m_bytes.value(s_place(leaf, byte));
        bits.zeros |= known.zeros << byteBits * byte;
        bits.ones |= known.ones << byteBits * byte;
    }
    return bits;
}

void Fields::add(const Leaf &leaf, double field)
{
    const quint32 reading = readingWith(leaf, field);
    const SetBits bits{~reading & maskOf(leaf), reading};
    if (m_bits.within(leaf).contradicts(bits)) {
        m_conflicts << s_shared(leaf);
    }
    m_bits.add(leaf, bits);
}

std::optional<quint32> Fields::reading(const Leaf &leaf, std::optional<quint32> former) const
{
    const SetBits bits = m_bits.within(leaf);
    if (!former && bits.mask() != windowOf(leaf)) {
        return std::nullopt;
    }
    return (former.value_or(0) & windowOf(leaf) & ~bits.mask()) | bits.ones;
}

QVector<Problem> contradictions(const QVector<Written> &written)
{
    QVector<Problem> problems;
    if (std::none_of(written.cbegin(), written.cend(),
                     [](const Written &each) { return each.leaf.isPart(); })) {
        return problems;
    }
    PayloadBits parts;
    PayloadBits wholes;
    for (const Written &each : written) {
        const bool isPart = each.leaf.isPart();
        const SetBits bits = s_allBits(each.leaf, s_payload(each));
        if ((isPart ? wholes : parts).within(each.leaf).contradicts(bits)) {
            problems << s_shared(each.leaf);
        }
        (isPart ? parts : wholes).add(each.leaf, bits);
    }
    return problems;
}

QVector<Problem> unselected(const QVector<Written> &written)
{
    QVector<Problem> problems;
    if (std::none_of(written.cbegin(), written.cend(),
                     [](const Written &each) { return each.leaf.members.when.has_value(); })) {
        return problems;
    }
    QHash<QString, double> fields;
    for (const Written &each : written) {
        fields.insert(each.path(), each.field());
    }
    for (const Written &each : written) {
        const auto &when = each.leaf.members.when;
        if (when && (!fields.contains(when->path) || fields.value(when->path) != when->is)) {
            problems.append({each.path(), QStringLiteral("not-selected"),
                             QStringLiteral("counts only where %1 is %2: write that with it")
                                 .arg(when->path, numberText(when->is))});
        }
    }
    return problems;
}

std::optional<quint32> bitsBeside(const Leaf &leaf, const QVariant &lastReading)
{
    const auto last = bitsOfReading(lastOf(lastReading));
    const auto &initial = leaf.members.initial;
    return last || !initial ? last : std::optional<quint32>(static_cast<quint32>(*initial));
}

std::optional<quint32> overwritten(const Leaf &leaf, std::optional<quint32> reading,
                                   const QVector<Written> &written)
{
    int length = 0;
    PayloadBits payload;
    for (const Written &each : written) {
        if (s_frameOf(each.leaf) != s_frameOf(leaf)) {
            continue;
        }
        length = std::max(length, each.leaf.skip + each.leaf.width());
        payload.replace(each.leaf, s_allBits(each.leaf, s_payload(each)));
    }
    const int bytes = std::clamp(length - leaf.skip, 0, leaf.width());
    const quint32 kept = bytes == leaf.width() ? 0 : windowOf(leaf) >> byteBits * bytes << byteBits * bytes;
    if (!reading && kept != 0) {
        return std::nullopt;
    }
    return (reading.value_or(0) & kept) | (payload.within(leaf).ones & ~kept);
}

} // namespace Vorbel
