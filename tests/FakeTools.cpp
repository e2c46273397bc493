#include "FakeTools.h"

#include "Fixture.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace sd::test {

void writeExecutable(const std::string& path, std::string_view script) {
    writeFile(path, script);
    if (::chmod(path.c_str(), 0755) != 0) {
        throw std::runtime_error("chmod " + path);
    }
}

std::vector<std::string> readLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace sd::test
