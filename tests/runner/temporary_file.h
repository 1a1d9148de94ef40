// A file that a test writes and that is gone after it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

#include <unistd.h>

inline std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class temporary_file {
public:
    explicit temporary_file(std::string_view content = {}, std::string_view suffix = ".csv") {
        path_ = testing_directory() + "/vask_test_XXXXXX" + std::string(suffix);
        const int descriptor = ::mkstemps(path_.data(), static_cast<int>(suffix.size()));
        if (descriptor < 0)
            throw std::runtime_error("no temporary file");
        std::FILE *file = ::fdopen(descriptor, "wb");
        if (!content.empty())
            std::fwrite(content.data(), 1, content.size(), file);
        std::fclose(file);
    }
    ~temporary_file() { ::unlink(path_.c_str()); }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;

    const std::string &path() const { return path_; }

    std::string content() const { return content_of(path_); }

private:
    static std::string testing_directory() {
        const char *const directory = std::getenv("TMPDIR");
        return directory == nullptr ? "/tmp" : directory;
    }

    std::string path_;
};
