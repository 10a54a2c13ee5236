// What one run of the gateway leaves to the next.
#pragma once

#include <QString>

namespace Gateway
{

// Which run this is, and what was lost in all of them. It is kept in a file; where that cannot be written, it
// counts for this run, and the log says so.
class RunState
{
public:
    // Begins a run: its number is greater than that of every run before, and about the seconds since 1970.
    explicit RunState(const QString &fileName);

    qint64 boot() const { return m_boot; }

    // Batches that the spool gave up, or could not read.
    qint64 lost() const { return m_lost; }
    void addLost(int count);

private:
    void save() const;

    const QString m_fileName;
    qint64 m_boot = 0;
    qint64 m_lost = 0;
};

} // namespace Gateway
