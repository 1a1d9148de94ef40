// Writes a CSV file of the shape of the public group-by benchmark: id1, id2 texts of K values; id3
// texts of N/K values; id4, id5 integers of K values; id6 integers of N/K values; v1, v2 integers
// from 1 to 5; v3 decimals from 0 to 100 with four places. The same options give the same file.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

namespace {

constexpr std::size_t columns = 9;
constexpr std::string_view header = "id1,id2,id3,id4,id5,id6,v1,v2,v3\n";
constexpr std::int32_t missing = -1;

struct request {
    std::uint64_t rows = 10'000'000;
    std::uint64_t values = 100;
    std::uint64_t seed = 1;
    unsigned missing_percent = 0;
    bool sorted = false;
    std::string file;
};

//! The numbers behind a row's cells; of v3 the ten-thousandths.
using row = std::array<std::int32_t, columns>;

class row_source {
public:
    explicit row_source(const request &asked)
        : random_(asked.seed), missing_percent_(asked.missing_percent) {
        const std::uint64_t k = asked.values;
        const std::uint64_t many = std::max<std::uint64_t>(1, asked.rows / k);
        limits_ = {k, k, many, k, k, many, 5, 5, 1'000'001};
    }

    row next() {
        row result;
        for (std::size_t i = 0; i < columns; ++i) {
            // All count from 1 but v3. The bias of the remainder is below 1e-12.
            const auto first = static_cast<std::int32_t>(i + 1 < columns);
            result[i] = static_cast<std::int32_t>(random_() % limits_[i]) + first;
            if (missing_percent_ != 0 && random_() % 100 < missing_percent_)
                result[i] = missing;
        }
        return result;
    }

private:
    std::mt19937_64 random_;
    unsigned missing_percent_;
    std::array<std::uint64_t, columns> limits_;
};

class csv_writer {
public:
    explicit csv_writer(const std::string &path) : file_(std::fopen(path.c_str(), "wb")) {
        if (!file_)
            throw std::runtime_error("cannot write " + path);
        text_ += header;
    }

    void write(const row &cells) {
        for (std::size_t i = 0; i < columns; ++i) {
            if (cells[i] != missing)
                append(i, cells[i]);
            text_ += i + 1 < columns ? ',' : '\n';
        }
        if (text_.size() > flush_bytes)
            flush();
    }

    void close() {
        flush();
        if (std::fclose(file_.release()) != 0)
            throw std::runtime_error("cannot write to the end");
    }

private:
    static constexpr std::size_t flush_bytes = std::size_t{1} << 20;

    void append(std::size_t column, std::int32_t number) {
        if (column < 3)
            append_padded(number, column == 2 ? 10 : 3, "id");
        else if (column + 1 < columns)
            append_padded(number, 1, "");
        else {
            append_padded(number / 10'000, 1, "");
            append_padded(number % 10'000, 4, ".");
        }
    }

    void append_padded(std::int32_t number, std::ptrdiff_t width, std::string_view prefix) {
        std::array<char, 16> digits;
        const char *const end =
            std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
        const std::ptrdiff_t length = end - digits.data();
        text_ += prefix;
        text_.append(static_cast<std::size_t>(std::max<std::ptrdiff_t>(0, width - length)), '0');
        text_.append(digits.data(), static_cast<std::size_t>(length));
    }

    void flush() {
        if (std::fwrite(text_.data(), 1, text_.size(), file_.get()) != text_.size())
            throw std::runtime_error("cannot write to the end");
        text_.clear();
    }

    struct closer {
        void operator()(std::FILE *file) const { static_cast<void>(std::fclose(file)); }
    };
    std::unique_ptr<std::FILE, closer> file_;
    std::string text_;
};

void generate(const request &asked) {
    row_source source(asked);
    csv_writer writer(asked.file);
    if (asked.sorted) {
        std::vector<row> rows(asked.rows);
        std::ranges::generate(rows, [&] { return source.next(); });
        std::ranges::stable_sort(rows, [](const row &a, const row &b) {
            return std::lexicographical_compare(a.begin(), a.begin() + 6, b.begin(), b.begin() + 6);
        });
        std::ranges::for_each(rows, [&](const row &r) { writer.write(r); });
    } else {
        for (std::uint64_t i = 0; i < asked.rows; ++i)
            writer.write(source.next());
    }
    writer.close();
}

} // namespace

int main(int argc, char **argv) {
    try {
        request asked;
        CLI::App app("Writes the data of the side-by-side benchmark");
        app.add_option("-n,--rows", asked.rows, "Rows")->check(CLI::PositiveNumber);
        app.add_option("-k,--values", asked.values, "Values of a narrow id")
            ->check(CLI::PositiveNumber);
        app.add_option("--seed", asked.seed, "Seed");
        app.add_option("--missing", asked.missing_percent, "Missing cells, in percent")
            ->check(CLI::Range(0, 100));
        app.add_flag("--sorted", asked.sorted, "Rows in the order of id1 to id6");
        app.add_option("file", asked.file, "The file to write")->required();
        CLI11_PARSE(app, argc, argv);
        generate(asked);
        return 0;
    } catch (const std::exception &failure) {
        std::cerr << "generate: " << failure.what() << '\n';
        return 1;
    }
}
