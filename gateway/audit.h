// What became of everything that somebody wanted to change.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <optional>

namespace Gateway
{

// One line of the audit.
struct Deed {
    QString user; // null: not known, as for a schema
    QString path; // null: a schema
    QVariant value;
    QVariant raw;  // invalid: nothing was sent
    QString error; // empty if it was done
};

// It as JSON.
QByteArray deedText(const Deed &deed, qint64 now);

// Publishes and logs what became of orders. Of refusals, ten in a second are told one by one, and then how
// many there were more.
class Audit : public QObject
{
    Q_OBJECT

public:
    using Publish = std::function<void(const QByteArray &text)>;

    explicit Audit(Publish publish);

    void done(const Deed &deed);
    void refused(const Deed &deed);

    // So many orders were not even read.
    void missed(int count);

    qint64 doneCount() const { return m_done; }
    qint64 refusedCount() const { return m_refused; }

private:
    void tell(const Deed &deed);
    void endSecond();

    const Publish m_publish;
    qint64 m_done = 0;
    qint64 m_refused = 0;
    int m_told = 0; // in this second
    int m_untold = 0;
    QTimer m_second;
};

} // namespace Gateway
