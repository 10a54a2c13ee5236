// The other MessagePack codec of the benchmarks, msgpack-cxx, and values for it to work on.
//
// It has no value type of its own to build values in. What stands in for QVariant is a variant of standard
// types with the same shape: ordered maps with string keys, lists, scalars.
#pragma once

#include <QVariant>

#include <cstddef>
#include <map>
#include <string>
#include <variant>
#include <vector>

struct StandardValue {
    using List = std::vector<StandardValue>;
    using Map = std::map<std::string, StandardValue>;

    std::variant<std::monostate, bool, int, long long, float, double, std::string, std::vector<char>,
                 std::vector<short>, List, Map>
        held;
};

// The same value in standard types. Handles what codecCases() holds.
StandardValue toStandardValue(const QVariant &value);

// Packs the value into a fresh buffer, destroys that, and returns the number of bytes that were in it.
size_t packWithMsgpackCxx(const StandardValue &value);

// Unpacks into msgpack::object, which is as far as msgpack-cxx goes by itself, and destroys that. Returns its
// type.
int unpackWithMsgpackCxx(const char *bytes, size_t size);
