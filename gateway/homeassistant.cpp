#include "gateway/homeassistant.h"

#include "vorbel/paths.h"
#include "vorbel/writing.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>

namespace Gateway
{

namespace
{

using Vorbel::Leaf;
using Vorbel::Limits;

// What Home Assistant takes for a step at least, and for a state's characters at most.
constexpr double leastStep = 0.001;
constexpr int longestState = 255;

// How many digits a scaled value is published with.
constexpr int digits = 10;

// What Home Assistant calls quantities, with units as it writes them.
struct DeviceClass {
    const char *name;
    const char *units;
};
constexpr DeviceClass deviceClasses[] = {
    {"apparent_power", "VA"},   {"current", "A mA"},
    {"distance", "mm cm m km"}, {"duration", "ms s min h"},
    {"energy", "Wh kWh MWh"},   {"frequency", "Hz kHz MHz"},
    {"illuminance", "lx"},      {"irradiance", "W/m²"},
    {"power", "W kW"},          {"pressure", "Pa hPa kPa mbar bar psi"},
    {"reactive_power", "var"},  {"signal_strength", "dBm"},
    {"speed", "m/s km/h mph"},  {"temperature", "°C °F"},
    {"voltage", "V mV"},        {"volume_flow_rate", "m³/h L/min"},
    {"weight", "kg lb"},
};

// Names in topics and in unique_id

// Home Assistant takes letters, digits, _ and - there. A - begins an escape: of a byte, two digits follow; of
// the border between two levels, another -.
QByteArray s_escaped(const QByteArray &level)
{
    QByteArray escaped;
    for (const char byte : level) {
        const auto code = static_cast<unsigned char>(byte);
        const bool isPlain = code < 0x80 && (std::isalnum(code) != 0 || byte == '_');
        escaped += isPlain ? QByteArray(1, byte) : '-' + QByteArray(1, byte).toHex().toUpper();
    }
    return escaped;
}

QByteArray s_idOf(const QList<QByteArray> &levels)
{
    QByteArray id;
    for (const QByteArray &level : levels) {
        id += (&level == &levels.first() ? "" : "--") + s_escaped(level);
    }
    return id.isEmpty() ? "-" : id;
}

QByteArray s_objectOf(const Leaf &leaf)
{
    QList<QByteArray> levels;
    for (const QString &name : leaf.names) {
        levels << name.toUtf8();
    }
    return s_idOf(levels);
}

// Gateways with the same ID and other prefixes are others.
QByteArray s_nodeOf(const Topics &topics)
{
    QList<QByteArray> levels = topics.status().split('/');
    levels.removeLast();
    return s_idOf(levels);
}

// What a leaf is

// Whether readings of it come.
bool s_isRead(const Leaf &leaf)
{
    return leaf.width() > 0 && leaf.flushSize >= 0;
}

// Whether the labels of a flag say no more than what Home Assistant shows by itself.
bool s_isOffAndOn(const QMap<double, QString> &labels)
{
    for (auto label = labels.cbegin(); label != labels.cend(); ++label) {
        if (label->compare(label.key() == 0 ? "off" : "on", Qt::CaseInsensitive) != 0) {
            return false;
        }
    }
    return true;
}

// Whether it is off or on, by its bits or by its labels, and no more than that is known of it.
bool s_isFlag(const Leaf &leaf)
{
    const auto &labels = leaf.members.labels;
    const bool isBit = leaf.isArranged() && leaf.bits().count == 1 && !leaf.members.isSigned;
    const bool isPair = labels.size() == 2 && labels.contains(0) && labels.contains(1);
    return (leaf.asBool || isBit || isPair) && !leaf.members.isScaled() && s_isOffAndOn(labels);
}

// Home Assistant cuts white space off at both ends, and knows an option by its text.
bool s_isState(const QString &label)
{
    const auto isControl = [](QChar character) {
        return character.category() == QChar::Other_Control;
    };
    return !label.isEmpty() && label.size() <= longestState && label == label.trimmed() &&
           label.isValidUtf16() && std::none_of(label.cbegin(), label.cend(), isControl);
}

// Whether its labels can stand in place of its numbers. With a unit, they are the names of a few among many.
bool s_isChoice(const Leaf &leaf)
{
    const QStringList labels = leaf.members.labelList();
    return !labels.isEmpty() && leaf.members.unit.isEmpty() &&
           std::all_of(labels.cbegin(), labels.cend(), s_isState) &&
           QSet<QString>(labels.cbegin(), labels.cend()).size() == labels.size();
}

// The raw numbers that can be written and are read as the same; with a factor, the daemon clamps them to the
// signed range.
Limits s_rawRange(const Leaf &leaf)
{
    if (leaf.isSingle()) {
        const auto largest = double(std::numeric_limits<float>::max());
        return {-largest, largest};
    }
    const int bits = leaf.isArranged() ? leaf.bits().count : 8 * leaf.width();
    const bool isSigned = leaf.isArranged() ? leaf.members.isSigned : leaf.hasSign();
    const double half = std::ldexp(1, bits - 1);
    return {isSigned ? -half : 0, (isSigned || leaf.isScaled() ? half : 2 * half) - 1};
}

// The values that can be written.
Limits s_range(const Leaf &leaf)
{
    const Limits raw = s_rawRange(leaf);
    const Limits &bounds = leaf.members.bounds;
    const double factor = leaf.isScaled() ? leaf.factor : 1;
    const auto ends = std::minmax(
        {Vorbel::valueOfField(leaf, raw.low / factor), Vorbel::valueOfField(leaf, raw.high / factor)});
    return {std::max(bounds.low, ends.first), std::min(bounds.high, ends.second)};
}

bool s_isRange(const Limits &range)
{
    return std::isfinite(range.low) && std::isfinite(range.high) && range.low < range.high;
}

// How far the values that are of use lie apart: what can be written, and what is shown.
double s_step(const Leaf &leaf)
{
    const double written =
        leaf.isSingle() ? 0 : std::abs(leaf.members.scale / (leaf.isScaled() ? leaf.factor : 1));
    const double shown = leaf.members.decimals ? std::pow(10, -*leaf.members.decimals) : 0;
    return std::max({leastStep, written, shown});
}

// Of a unit that leaves no doubt; empty of others.
QString s_deviceClass(const QString &unit)
{
    for (const DeviceClass &each : deviceClasses) {
        if (QString(each.units).split(' ').contains(unit)) {
            return each.name;
        }
    }
    return {};
}

// Templates

// The value in what is published; of an array, the last one.
QString s_valueOf(const Leaf &leaf)
{
    return leaf.flushSize > 0 ? "value_json[-1]" : "value_json";
}

// A text as JSON writes it is a literal of templates, too.
QString s_literal(const QString &text)
{
    const QByteArray list = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(list.mid(1, list.size() - 2));
}

// A map from values to labels; 1, 1.0 and true are the same in it. Values have the digits that are published.
QString s_labelsOf(const Leaf &leaf)
{
    QStringList entries;
    const auto &labels = leaf.members.labels;
    for (auto label = labels.cbegin(); label != labels.cend(); ++label) {
        const double value = Vorbel::valueOfField(leaf, label.key());
        entries << QString::number(value, 'g', digits) + ':' + s_literal(*label);
    }
    return '{' + entries.join(',') + '}';
}

// Entities

// What the discovery says of one.
struct Entity {
    QByteArray component;
    QJsonObject config;
};

Entity s_flag(const Leaf &leaf, bool isWritten)
{
    return {isWritten ? "switch" : "binary_sensor",
            {{"payload_on", "1"},
             {"payload_off", "0"},
             {"value_template", "{{ 1 if " + s_valueOf(leaf) + " else 0 }}"}}};
}

// What has no label cannot be chosen, but shown.
Entity s_choice(const Leaf &leaf, bool isWritten)
{
    const QString value = s_valueOf(leaf);
    const QString get = "{{ " + s_labelsOf(leaf) + ".get(" + value;
    if (!isWritten) {
        return {"sensor", {{"value_template", get + ", " + value + ") }}"}}};
    }
    return {"select",
            {{"options", QJsonArray::fromStringList(leaf.members.labelList())},
             {"value_template", get + ") }}"},
             {"command_template", "{{ value | tojson }}"}}};
}

// A value that is null is rendered as None, which stands for unknown.
QJsonObject s_quantity(const Leaf &leaf)
{
    const QString &unit = leaf.members.unit;
    const QString deviceClass = s_deviceClass(unit);
    QJsonObject config{{"value_template", "{{ " + s_valueOf(leaf) + " }}"}};
    if (!unit.isEmpty()) {
        config["unit_of_measurement"] = unit;
    }
    if (!deviceClass.isEmpty()) {
        config["device_class"] = deviceClass;
    }
    return config;
}

Entity s_number(const Leaf &leaf)
{
    const Limits range = s_range(leaf);
    QJsonObject config = s_quantity(leaf);
    config["min"] = range.low;
    config["max"] = range.high;
    config["step"] = s_step(leaf);
    return {"number", config};
}

// Whether an energy is a meter's, which its statistics depend on, no unit says.
Entity s_sensor(const Leaf &leaf)
{
    QJsonObject config = s_quantity(leaf);
    if (!leaf.members.unit.isEmpty() && config.value("device_class") != "energy") {
        config["state_class"] = "measurement";
    }
    if (leaf.members.decimals) {
        config["suggested_display_precision"] = *leaf.members.decimals;
    }
    return {"sensor", config};
}

// Whether something in Home Assistant could set it.
bool s_hasControl(const Leaf &leaf)
{
    return s_isFlag(leaf) || s_isChoice(leaf) || s_isRange(s_range(leaf));
}

Entity s_entity(const Leaf &leaf, bool isWritten)
{
    if (s_isFlag(leaf)) {
        return s_flag(leaf, isWritten);
    }
    if (s_isChoice(leaf)) {
        return s_choice(leaf, isWritten);
    }
    return isWritten ? s_number(leaf) : s_sensor(leaf);
}

QString s_nameOf(const Leaf &leaf)
{
    const QString name = leaf.members.title.isEmpty() ? leaf.path() : leaf.members.title;
    return name.isEmpty() ? "value" : name;
}

// The entities of one gateway.
class Discovery
{
public:
    Discovery(const Vorbel::Meanings &meanings, const Topics &topics, const Settings &settings)
        : m_meanings(meanings), m_topics(topics), m_settings(settings), m_node(s_nodeOf(topics))
    {
    }

    QMap<QByteArray, QByteArray> messages(const QString &device) const
    {
        const QByteArray prefix = m_settings.homeAssistant.prefix.toUtf8() + '/';
        QMap<QByteArray, QByteArray> messages;
        for (const auto &leaf : m_meanings.leaves()) {
            if (s_isRead(*leaf)) {
                const QByteArray object = s_objectOf(*leaf);
                const Entity entity = entityOf(*leaf, object, device);
                messages.insert(prefix + entity.component + '/' + m_node + '/' + object + "/config",
                                QJsonDocument(entity.config).toJson(QJsonDocument::Compact));
            }
        }
        return messages;
    }

private:
    Entity entityOf(const Leaf &leaf, const QByteArray &object, const QString &device) const
    {
        const bool isWritten = s_hasControl(leaf) && mayWrite(leaf);
        Entity entity = s_entity(leaf, isWritten);
        QJsonObject &config = entity.config;
        config["name"] = s_nameOf(leaf);
        config["unique_id"] = QString::fromLatin1(m_node + '.' + object);
        config["state_topic"] = QString::fromUtf8(m_topics.now(leaf.names));
        config["availability_topic"] = QString::fromUtf8(m_topics.status());
        config["availability_template"] = "{{ 'online' if value_json.online else 'offline' }}";
        config["device"] =
            QJsonObject{{"identifiers", QJsonArray{QString::fromLatin1(m_node)}}, {"name", device}};
        config["origin"] = QJsonObject{{"name", "vorbel-gateway"}};
        if (isWritten) {
            config["command_topic"] =
                QString::fromUtf8(m_topics.set(m_settings.homeAssistant.user, leaf.names));
        }
        return entity;
    }

    // Whether Home Assistant's user may write a leaf, and what has to be written with it. What is a schema
    // all by itself cannot be written.
    bool mayWrite(const Leaf &leaf) const
    {
        const auto values = Vorbel::withSelectors(m_meanings, leaf.names, 0);
        const QStringList paths = Vorbel::flatten(values).keys();
        return !paths.isEmpty() && std::all_of(paths.cbegin(), paths.cend(), [this](const QString &path) {
            const auto written = m_meanings.leaf(path);
            return written && !written->isReadOnly() &&
                   m_settings.mayWrite(m_settings.homeAssistant.user, path);
        });
    }

    const Vorbel::Meanings &m_meanings;
    const Topics &m_topics;
    const Settings &m_settings;
    const QByteArray m_node;
};

} // namespace

QMap<QByteArray, QByteArray> discoveryOf(const Vorbel::Meanings &meanings, const Topics &topics,
                                         const Settings &settings, const QString &id, const QString &type)
{
    return Discovery(meanings, topics, settings).messages((type + ' ' + id).trimmed());
}

} // namespace Gateway
