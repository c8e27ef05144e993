// Fuzzes ParameterList::createFromBinary on an exact heap copy of the input (the last byte being the
// spare readable one). A list that decodes whole is encoded again, and that encoding must decode to
// the same list: the format is stable under a round trip once a list has been read.
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
    std::vector<char> exact(data, data + size);
    ParameterList list;
    const int consumed = list.createFromBinary(exact.data(), static_cast<int>(size) - 1);
    check(consumed >= 0 && consumed <= static_cast<int>(size) + 1);

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
        encoded.resize(static_cast<std::size_t>(written) + 1);
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
