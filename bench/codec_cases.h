// The values that the codec benchmarks pack and unpack, and the ways to do that: the codec itself, the floor
// that no codec of QVariant can beat, and two other codecs.
#pragma once

#include <QByteArray>
#include <QVariant>

#include <string>
#include <vector>

struct CodecCase {
    std::string name;
    QVariant value;
};

// small      a value map as most frames make one: 3 leaves below one member
// leaves20   20 leaves below 4 members
// array4k    a typed array of 4,000 bytes below one member
// mixed100k  a list of maps of all sorts of values that packs to 100 kB
// ints100k   a list of 100,000 integers of all widths
//
// Registers the typed arrays, and an unpacker that makes one of them from its payload, as a client would.
std::vector<CodecCase> codecCases();

// Goes through the whole value and looks at every leaf, key and string: what any packer has to do. Returns a
// number that depends on all of it.
quint64 walk(const QVariant &value);

// What there is to know about a value to build it again: its leaves, keys and counts in the order in which an
// unpacker meets them, ready for use. Building it is what any unpacker has to do.
class Blueprint
{
public:
    explicit Blueprint(const QVariant &value);
    QVariant build() const;

private:
    struct Step {
        int metatype;
        int count;        // of a container
        quint64 number;   // of a scalar, its bits
        QByteArray bytes; // of a string, key, byte array or typed array
    };

    void add(const QVariant &value);
    QVariant build(const Step *&step) const;
    static QVariant buildLeaf(const Step &step);

    std::vector<Step> m_steps;
};
