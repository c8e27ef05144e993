#include "shells.h"

namespace tarncli {

bool commandWords(const std::string& line, std::vector<Token>& words) {
    std::string error;
    if (!tokenize(line, words, error)) {
        printError(error);
        return false;
    }
    return !words.empty() && words[0].text[0] != '#';
}

}  // namespace tarncli
