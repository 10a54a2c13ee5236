// The cases that all clients run, as rows of a test's data.
#pragma once

#include "vorbel/jsontext_p.h"

#include <QFile>
#include <QtTest>

// What a file holds. VORBEL_CONFORMANCE is the folder, from the build.
inline QVariantMap conformanceFile(const QString &file)
{
    QFile cases(QStringLiteral(VORBEL_CONFORMANCE "/%1.json").arg(file));
    if (!cases.open(QIODevice::ReadOnly)) {
        qFatal("%s cannot be read", qPrintable(cases.fileName()));
    }
    const Vorbel::JsonText read = Vorbel::readJson(QString::fromUtf8(cases.readAll()));
    if (!read.error.isNull()) {
        qFatal("%s: %s", qPrintable(cases.fileName()), qPrintable(read.error));
    }
    return read.value.toMap();
}

// What stands at a file's top under `member`.
inline QVariant conformanceMember(const char *file, const char *member)
{
    return conformanceFile(file).value(member);
}

// One row "case" for each case.
inline void addConformanceRows(const char *file, const char *member)
{
    QTest::addColumn<QVariantMap>("conformanceCase");
    const QVariantList cases = conformanceMember(file, member).toList();
    QVERIFY(!cases.isEmpty());
    for (int at = 0; at < cases.size(); ++at) {
        const QVariantMap each = cases.at(at).toMap();
        const QByteArray name = each.value("name").toString().toUtf8();
        QTest::newRow(QByteArray::number(at) + ' ' + name) << each;
    }
}
