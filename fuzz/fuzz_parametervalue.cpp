// Fuzzes ParameterValue::createFromBinary. The input is the encoding plus the one readable byte that
// callers keep beyond `size`; every decode reads from an exact heap copy, so any read outside it is
// a finding. A value that decodes is re-encoded and must give back the bytes it came from. The
// first byte is also decoded alone at a negative size.
#include <parameterlist.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void roundTrip(const ParameterValue& value, const std::vector<char>& input, int consumed) {
    char encoded[64 * 1024];
    const int written = value.getBinaryValue(encoded, static_cast<int>(sizeof encoded));
    switch (value.getType()) {
        case TYPE_INT:
        case TYPE_FLOAT:
        case TYPE_STRING:
            // Tag, payload and (for text) the NUL come back byte for byte.
            check(written == consumed);
            check(std::memcmp(encoded, input.data(), static_cast<std::size_t>(written)) == 0);
            break;
        case TYPE_BOOL: {
            check(written == 2 && consumed == 2);
            bool b = false;
            check(value.getBooleanValue(b));
            check(encoded[1] == (b ? 1 : 0));
            break;
        }
        default:
            check(written == 1 && consumed == 1);
            check(encoded[0] == input[0]);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > 64 * 1024) {
        return 0;
    }
    const int counted = static_cast<int>(size) - 1;

    // The public form: `size` - 1 bytes counted, the last one the spare readable byte.
    std::vector<char> exact(data, data + size);
    ParameterValue value;
    const int consumed = value.createFromBinary(exact.data(), counted);
    check(consumed >= 0 && consumed <= counted + 1);
    if (consumed > 0) {
        roundTrip(value, exact, consumed);
    }

    // Every byte counted and no spare one: reads must stop at the end of the copy.
    ParameterValue tight(7);
    const int tightConsumed =
        tight.createFromBinary(exact.data(), static_cast<int>(size), static_cast<int>(size));
    check(tightConsumed >= 0 && tightConsumed <= static_cast<int>(size) + 1);

    // A negative size: the tag alone is read, from a copy of that one byte. It becomes the type;
    // only a tag other than 'I', 'F', 'B' and 'S' consumes anything (its one byte).
    std::vector<char> tagOnly(1, exact[0]);
    ParameterValue negative(3);
    const int negativeConsumed =
        negative.createFromBinary(tagOnly.data(), -1 - static_cast<int>(data[0] & 7));
    check(negative.getType() == static_cast<std::int8_t>(exact[0]));
    const bool payloadTag = exact[0] == 'I' || exact[0] == 'F' || exact[0] == 'B' || exact[0] == 'S';
    check(negativeConsumed == (payloadTag ? 0 : 1));
    return 0;
}
