// Any bytes as a message to the C++ client.
#include "tests/fuzz/fuzzing.h"
#include "vorbel/paths.h"
#include "vorbel/wire.h"

using Fuzzing::require;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Fuzzing::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int linesBefore = Fuzzing::loggedLines;
    const QByteArray message = Fuzzing::bytes(data, size);
    const Vorbel::Decoded decoded = Vorbel::decode(message);
    require(Fuzzing::loggedLines == linesBefore, "the codec has something to say of a message");
    require(decoded.isDecoded() || !decoded.value.isValid(), "a value of what cannot be decoded");
    require(!decoded.isDecoded() || decoded.value.isValid() || message == "\xC0", "a value that got lost");
    Vorbel::elements(decoded.value);
    Vorbel::flatten(decoded.value);

    // What can be sent comes back.
    const Vorbel::Encoded encoded = Vorbel::encode(decoded.value);
    require(!encoded.isEncoded() || Vorbel::decode(encoded.message).isDecoded(),
            "nobody can decode what is sent");
    return 0;
}
