// The standalone main of every fuzz target when it is built without libFuzzer: each argument is
// a file or a directory of files, and each file is handed to the target once, in name order so
// that a failure reproduces the same way. CTest runs it on the target's corpus, so every input
// that ever broke a reader is replayed under the sanitizers on every test run.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool isDirectory(const std::string &path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void collect(const std::string &path, std::vector<std::string> &files) {
    if (!isDirectory(path)) {
        files.push_back(path);
        return;
    }
    DIR *dir = opendir(path.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.') names.push_back(path + "/" + entry->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names)
        collect(name, files);
}

} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++)
        collect(argv[i], files);
    if (files.empty()) {
        std::fprintf(stderr, "%s: no inputs (give corpus files or directories)\n", argv[0]);
        return 1;
    }
    for (const std::string &file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], file.c_str());
            return 1;
        }
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        // An empty vector's data() may be NULL; libFuzzer never passes NULL, so neither do we.
        static const uint8_t kEmpty = 0;
        const uint8_t *data = bytes.empty() ? &kEmpty : reinterpret_cast<const uint8_t *>(bytes.data());
        LLVMFuzzerTestOneInput(data, bytes.size());
    }
    std::printf("%s: %zu inputs replayed\n", argv[0], files.size());
    return 0;
}
