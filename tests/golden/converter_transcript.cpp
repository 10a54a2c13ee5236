// Speaks with one SchemaConverter in lines: executes the commands of a transcript and writes the transcript
// anew, with everything that the converter answered and logged. See README.md for the language.
//
//   converter_transcript < before > after
//
// A transcript that tells the truth comes out as it went in.
#include "msgpack/msgpack.h"
#include "schema/schemaconverter.h"
#include "service/typedarrays.h"

#include <QJsonDocument>
#include <QTextStream>

#include <cmath>
#include <cstdio>
#include <stdexcept>

static QTextStream &s_out()
{
    static QTextStream out(stdout);
    return out;
}

static void s_answer(const QString &line)
{
    s_out() << "< " << line << "\n";
}

static void s_logLine(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    // In the order of QtMsgType.
    static const char *const s_levels[] = {"debug", "warning", "critical", "fatal", "info"};
    s_answer(QString("%1: %2").arg(s_levels[type], text));
}

static QString s_floatText(float value)
{
    if (std::isnan(value)) {
        return "nan"; // whose sign differs between processors
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", double(value)); // nine digits tell any two apart
    return text;
}

template <typename T>
static QString s_array(const char *name, const QVariant &value)
{
    QStringList elements;
    for (const T element : value.value<QVector<T>>()) {
        elements << QString::number(qint64(element));
    }
    return QString("%1[%2]").arg(name, elements.join(", "));
}

static QString s_floatArray(const QVariant &value)
{
    QStringList elements;
    for (const float element : value.value<QVector<float>>()) {
        elements << s_floatText(element);
    }
    return QString("float[%1]").arg(elements.join(", "));
}

// Plain char has a sign on some processors; these elements have none.
static QString s_charArray(const QVariant &value)
{
    QStringList elements;
    for (const char element : value.value<QVector<char>>()) {
        elements << QString::number(static_cast<unsigned char>(element));
    }
    return QString("char[%1]").arg(elements.join(", "));
}

static QString s_arrayText(const QVariant &value)
{
    const int type = value.userType();
    if (type == qMetaTypeId<QVector<char>>()) {
        return s_charArray(value);
    }
    if (type == qMetaTypeId<QVector<unsigned char>>()) {
        return s_array<unsigned char>("uchar", value);
    }
    if (type == qMetaTypeId<QVector<short>>()) {
        return s_array<short>("short", value);
    }
    if (type == qMetaTypeId<QVector<unsigned short>>()) {
        return s_array<unsigned short>("ushort", value);
    }
    if (type == qMetaTypeId<QVector<int>>()) {
        return s_array<int>("int", value);
    }
    if (type == qMetaTypeId<QVector<unsigned int>>()) {
        return s_array<unsigned int>("uint", value);
    }
    if (type == qMetaTypeId<QVector<float>>()) {
        return s_floatArray(value);
    }
    return QString("unexpected %1").arg(value.typeName());
}

static QString s_text(const QVariant &value);

static QString s_mapText(const QVariantMap &map)
{
    QStringList entries;
    for (auto at = map.cbegin(); at != map.cend(); ++at) {
        entries << QString("\"%1\": %2").arg(at.key(), s_text(at.value()));
    }
    return "{" + entries.join(", ") + "}";
}

// A value with its type; maps in the order of their names.
static QString s_text(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::UnknownType:
        return "nothing";
    case QMetaType::Bool:
        return value.toBool() ? "true" : "false";
    case QMetaType::Int:
        return "int " + QString::number(value.toInt());
    case QMetaType::UInt:
        return "uint " + QString::number(value.toUInt());
    case QMetaType::Float:
        return "float " + s_floatText(value.toFloat());
    case QMetaType::QVariantMap:
        return s_mapText(value.toMap());
    default:
        return s_arrayText(value);
    }
}

static void s_frame(SchemaConverter &converter, const QString &arguments)
{
    const QStringList parts = arguments.split(' ');
    const VEKEndpoint endpoint(parts.value(0).toUShort(), parts.value(1).toUShort(), false);
    QString answer;
    const auto counting = QObject::connect(&converter, &SchemaConverter::variantToSend,
                                           [&answer] { answer += " variantToSend"; });
    const auto disconnect = [&counting] {
        QObject::disconnect(counting);
    };
    try {
        answer.prepend(
            QString::number(converter.insertFrame(endpoint, QByteArray::fromHex(parts.value(2).toLatin1()))));
    } catch (...) {
        disconnect();
        throw;
    }
    disconnect();
    s_answer(answer);
}

static void s_take(SchemaConverter &converter, const QString &arguments)
{
    const QVariant value = converter.takeVariantToSend(arguments.contains("force"));
    s_answer(s_text(value));
    if (arguments.contains("packed")) {
        s_answer("packed " + MsgPack::pack(value).toHex());
    }
}

// A client's message: what it looks like after its journey as MessagePack.
static void s_send(SchemaConverter &converter, const QByteArray &message)
{
    const QByteArray records = converter.toFrame(MsgPack::unpack(message));
    for (int at = 0; at < records.size(); at += VEK_FRAME_SIZE) {
        s_answer("frame " + records.mid(at, VEK_FRAME_SIZE).toHex());
    }
}

static void s_execute(SchemaConverter &converter, const QString &command, const QString &arguments)
{
    if (command == "schema") {
        converter.loadSchema(QJsonDocument::fromJson(arguments.toUtf8()));
    } else if (command == "frame") {
        s_frame(converter, arguments);
    } else if (command == "take") {
        s_take(converter, arguments);
    } else if (command == "send") {
        s_send(converter, MsgPack::pack(QJsonDocument::fromJson(arguments.toUtf8()).toVariant()));
    } else if (command == "send-packed") {
        s_send(converter, QByteArray::fromHex(arguments.toLatin1()));
    } else if (command == "dump") {
        converter.dump();
    } else {
        s_answer("no such command");
    }
}

static void s_executeLine(SchemaConverter &converter, const QString &line)
{
    try {
        s_execute(converter, line.section(' ', 0, 0), line.section(' ', 1));
    } catch (const std::runtime_error &error) {
        s_answer(QString("throws ") + error.what());
    }
}

int main()
{
    registerTypedArrays();
    qInstallMessageHandler(s_logLine);
    QTextStream in(stdin);
    in.setCodec("UTF-8");
    s_out().setCodec("UTF-8");
    SchemaConverter converter;
    QString pending; // a command may go on over several lines, until one that begins otherwise
    const auto finishPending = [&] {
        if (!pending.isEmpty()) {
            s_executeLine(converter, pending);
            pending.clear();
        }
    };
    QString line;
    while (in.readLineInto(&line)) {
        const bool continuation = line.startsWith(">  ");
        if (!continuation) {
            finishPending();
        }
        if (line.startsWith("< ")) {
            continue; // what an earlier run answered
        }
        s_out() << line << "\n";
        if (line.startsWith("> ")) {
            pending += continuation ? " " + line.mid(2).trimmed() : line.mid(2);
        }
    }
    finishPending();
    s_out().flush();
    return 0;
}
