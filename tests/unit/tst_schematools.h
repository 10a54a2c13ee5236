// What the tests of schema conversion share: collected log lines, typed comparison of values, JSON shorthand.
#pragma once

#include "tests/unit/logcollector.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QRegExp>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <stdexcept>
#include <string>

// The log lines from its construction on, each as "level: text". One at a time.
class LogScope
{
public:
    LogScope() { m_collector.start(); }

    QStringList lines()
    {
        m_lines += m_collector.take();
        return m_lines;
    }

    // Those whose level is `level`.
    QStringList lines(const QString &level) { return lines().filter(QRegExp("^" + level + ": ")); }

private:
    LogCollector m_collector;
    QStringList m_lines;
};

inline QJsonDocument s_json(const QByteArray &text)
{
    return QJsonDocument::fromJson(text);
}

inline QVariantMap s_map(const QByteArray &text)
{
    return s_json(text).toVariant().toMap();
}

inline QByteArray s_hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

// The elements of a typed numeric array; the bytes of a char array are unsigned on every platform.
template <typename T>
QVector<double> s_elementsAs(const QVariant &value)
{
    QVector<double> elements;
    for (const T element : value.value<QVector<T>>()) {
        elements << double(element);
    }
    return elements;
}

template <typename T>
bool s_holds(const QVariant &value)
{
    return value.userType() == qMetaTypeId<QVector<T>>();
}

inline QVector<double> s_elements(const QVariant &value)
{
    if (s_holds<char>(value)) {
        QVector<double> elements;
        for (const char element : value.value<QVector<char>>()) {
            elements << double(static_cast<unsigned char>(element));
        }
        return elements;
    }
    if (s_holds<unsigned char>(value)) {
        return s_elementsAs<unsigned char>(value);
    }
    if (s_holds<short>(value)) {
        return s_elementsAs<short>(value);
    }
    if (s_holds<unsigned short>(value)) {
        return s_elementsAs<unsigned short>(value);
    }
    if (s_holds<int>(value)) {
        return s_elementsAs<int>(value);
    }
    if (s_holds<unsigned int>(value)) {
        return s_elementsAs<unsigned int>(value);
    }
    return s_elementsAs<float>(value);
}

// The what() of the std::runtime_error that `call` throws; empty when it throws nothing. Any other exception
// passes through and fails the test.
template <typename Call>
std::string s_thrownBy(const Call &call)
{
    try {
        call();
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return std::string();
}

#define COMPARE_THROWN(call, text) QCOMPARE(s_thrownBy([&] { call; }), std::string(text))
