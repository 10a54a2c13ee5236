// Whose schema the daemon has. It has one for all clients, and who sent it last owns it: whoever finds that
// it was replaced does not send it again by itself, or clients with different schemas would take turns, and
// whom the values of a message go to would be chance.
#pragma once

#include "vorbel/vorbelclient.h"

#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

namespace Vorbel
{

// The names that a schema has, for a look at every message.
struct NameTree {
    bool isLeaf = false;
    bool waitsForChange = false; // "@observe"
    QMap<QString, std::shared_ptr<const NameTree>> members;
};

// Of one schema that this client sends: whether it is the one that the daemon has.
class Ownership
{
public:
    using Tell = std::function<void(VorbelClient::SchemaState state, const QString &reason)>;

    // `tell` is called with what becomes of it, as the last thing that a function here does; it may end this
    // object. `silentAfter` is how many ticks without any of its values may mean that another client has
    // replaced it; 0: none do. `tickSeconds` is for words only.
    Ownership(const QJsonObject &schema, int silentAfter, double tickSeconds, Tell tell);

    // Whether this client sends it to a daemon that has none.
    bool isOwned() const { return m_isOwned; }

    bool isSent() const { return m_isSent; }

    // Whether the daemon has handled it: no value of another one before is still on its way.
    bool isConfirmed() const { return m_isConfirmed; }

    // Whether it is listened for whether a daemon that was found again still has it.
    bool isListening() const { return m_isListening; }

    void begin();                       // it goes out
    void confirm();                     // the daemon has answered behind it
    void resume();                      // a connection begins to a daemon that may have it
    void heard(const QVariant &values); // values have come
    void tick();                        // some time has passed in which all was heard that came

private:
    void forgetRhythm();
    bool isUnusual(int silence) const;
    void heardStranger(const QStringList &names);
    void heardOwn(const QVariant &values);
    void followRhythm(const QVariant &values);
    void disown(VorbelClient::SchemaState state, const QString &reason);
    void tell(VorbelClient::SchemaState state, const QString &reason);

    std::shared_ptr<const NameTree> m_names;
    int m_silentAfter;
    double m_tickSeconds;
    Tell m_tell;
    bool m_isOwned = true;
    bool m_isSent = false;
    bool m_isConfirmed = false;
    bool m_isListening = false;
    bool m_isSilent = false;
    int m_silence = 0; // ticks without a message that does not wait for a change
    int m_longest = 0; // such a silence so far
    int m_regular = 0; // such messages: after two of them, the next can be late
};

} // namespace Vorbel
