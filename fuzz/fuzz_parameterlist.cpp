// Fuzzes ParameterList::createFromBinary on an exact heap copy of the input (the last two bytes being
// the spare readable ones: a name's NUL may lie one byte beyond the size, and its value's tag one
// further). A list that decodes whole is encoded again, and that encoding must decode to the same
// list: the format is stable under a round trip once a list has been read. The first byte is also
// decoded alone at a negative size.
#include <parameterlist.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

std::string entries(const ParameterList& list, unsigned int& count) {
    std::string out;
    std::string name;
    std::string text;
    for (count = 0; list.getParam(count, name, text); ++count) {
        out += name;
        out.push_back('\0');
        out += text;
        out.push_back('\0');
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > 64 * 1024) {
        return 0;
    }
    // A negative size: the count byte alone is read, from a copy of that one byte.
    std::vector<char> countOnly(1, static_cast<char>(data[0]));
    ParameterList negative;
    check(negative.createFromBinary(countOnly.data(), -1) == (data[0] == 0 ? 1 : 0));
    unsigned int negativeCount = 0;
    entries(negative, negativeCount);
    check(negativeCount == 0);
    if (size < 2) {
        return 0;
    }

    std::vector<char> exact(data, data + size);
    const int counted = static_cast<int>(size) - 2;
    ParameterList list;
    const int consumed = list.createFromBinary(exact.data(), counted);
    check(consumed >= 0 && consumed <= counted + 2);

    unsigned int count = 0;
    const std::string before = entries(list, count);
    std::ostringstream printed;
    list.print(printed);

    // Lists of 128 entries or more do not survive the signed count byte; names with a NUL cannot
    // come out of a decode.
    if (consumed > 0 && count < 128) {
        std::vector<char> encoded(static_cast<std::size_t>(size) * 8 + 16);
        const int written = list.getBinary(encoded.data(), static_cast<int>(encoded.size()));
        check(written > 0);
        encoded.resize(static_cast<std::size_t>(written) + 2);
        ParameterList again;
        check(again.createFromBinary(encoded.data(), written) == written);
        unsigned int againCount = 0;
        check(entries(again, againCount) == before);
        std::ostringstream printedAgain;
        again.print(printedAgain);
        check(printedAgain.str() == printed.str());
    }

    // No spare byte at all: every read must stay inside the copy.
    ParameterList tight;
    const int tightConsumed =
        tight.createFromBinary(exact.data(), static_cast<int>(size), static_cast<int>(size));
    check(tightConsumed >= 0 && tightConsumed <= static_cast<int>(size) + 1);
    return 0;
}
