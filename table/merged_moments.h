// Moments of several parts of the values, brought together.
#pragma once

#include "table/functions.h"

#include <array>
#include <optional>
#include <utility>

namespace vask::table {

/*
 * Centred sums of two parts as those of both: Chan, Golub and LeVeque, "Updating formulae and a
 * pairwise algorithm for computing sample variances" (1979), and for third powers Pebay, "Formulas
 * for robust, one-pass parallel computation of covariances and arbitrary-order statistical moments"
 * (2008). Means count from centres, which are values: far from 0 a mean alone would lose the digits
 * by which those of parts differ.
 */
struct merged_moments {
    double n = 0;
    double centre = 0;
    double mean = 0;
    double m2 = 0;
    double m3 = 0;

    void add(const merged_moments &b) {
        if (n == 0) {
            *this = b;
            return;
        }
        const double total = n + b.n;
        const double d = (b.centre - centre) + (b.mean - mean);
        m3 += b.m3 + d * d * d * n * b.n * (n - b.n) / (total * total) +
              3 * d * (n * b.m2 - b.n * m2) / total;
        m2 += b.m2 + d * d * n * b.n / total;
        mean += d * b.n / total;
        n = total;
    }
};

struct merged_pairs {
    double n = 0;
    double centre_x = 0;
    double centre_y = 0;
    double mean_x = 0;
    double mean_y = 0;
    double m2_x = 0;
    double m2_y = 0;
    double c = 0;

    void add(const merged_pairs &b) {
        if (n == 0) {
            *this = b;
            return;
        }
        const double total = n + b.n;
        const double dx = (b.centre_x - centre_x) + (b.mean_x - mean_x);
        const double dy = (b.centre_y - centre_y) + (b.mean_y - mean_y);
        const double weight = n * b.n / total;
        m2_x += b.m2_x + dx * dx * weight;
        m2_y += b.m2_y + dy * dy * weight;
        c += b.c + dx * dy * weight;
        mean_x += dx * b.n / total;
        mean_y += dy * b.n / total;
        n = total;
    }
};

//! The numbers of a state, as its parts are called.
inline constexpr std::array moment_numbers{
    std::pair{"centre", &merged_moments::centre}, std::pair{"mean", &merged_moments::mean},
    std::pair{"m2", &merged_moments::m2}, std::pair{"m3", &merged_moments::m3}};
inline constexpr std::array pair_numbers{std::pair{"centre_x", &merged_pairs::centre_x},
                                         std::pair{"centre_y", &merged_pairs::centre_y},
                                         std::pair{"mean_x", &merged_pairs::mean_x},
                                         std::pair{"mean_y", &merged_pairs::mean_y},
                                         std::pair{"m2_x", &merged_pairs::m2_x},
                                         std::pair{"m2_y", &merged_pairs::m2_y},
                                         std::pair{"c_xy", &merged_pairs::c}};

//! The result of a function of moments; nothing where it has none.
std::optional<double> moment_of(const function_rule &rule, const merged_moments &of);
//! The same of a function of two columns.
std::optional<double> pair_of(const function_rule &rule, const merged_pairs &of);

} // namespace vask::table
