// tarn_docgen: writes the tool's manual page (`man`) or bash completion (`bash`), made from its
// command table, to FILE or standard output. Run by the tarn_docs build target to remake the copies
// in tools/share/.
#include <cstdio>
#include <cstring>
#include <string>

#include "docs.h"

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3 || (std::strcmp(argv[1], "man") != 0 && std::strcmp(argv[1], "bash") != 0)) {
        std::fputs("usage: tarn_docgen man|bash [FILE]\n", stderr);
        return 2;
    }
    const std::string text =
        std::strcmp(argv[1], "man") == 0 ? tarncli::manPage() : tarncli::bashCompletion();
    std::FILE* out = argc == 3 ? std::fopen(argv[2], "w") : stdout;
    if (out == nullptr) {
        std::perror(argv[2]);
        return 1;
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    const bool closed = (out == stdout ? std::fflush(out) : std::fclose(out)) == 0;
    return written && closed ? 0 : 1;
}
