// The multiple fit that drops its outliers.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <vector>

#include "math/normal_equations.h"
#include "tq_math.h"

using Eigen::MatrixXd;
using Eigen::VectorXd;

// Squared distance of each row of z from the mean row. Only the diagonal of C S^-1 C^T is formed.
static VectorXd _maha_dist(const MatrixXd &z)
{
    const auto n = z.rows();
    const MatrixXd c = z.rowwise() - z.colwise().sum() / static_cast<double>(n);
    const MatrixXd s = c.transpose() * c / static_cast<double>(n - 1);
    const Eigen::PartialPivLU<MatrixXd> lu(s);
    VectorXd d(n), row(z.cols()), q(z.cols());
    for (Eigen::Index i = 0; i < n; i++) {
        row = c.row(i);
        q = lu.solve(row);
        d[i] = row.dot(q);
    }
    return d;
}

void tq_mach_maha_dist_vec2avg_f32(const float *x, const float *y, int n, int m, float *d)
{
    if (n < 1 || m < 0 || (m > 0 && !x) || !y || !d)
        return;
    MatrixXd z(n, m + 1);
    for (int i = 0; i < n; i++) {
        for (int j = 0; j < m; j++)
            z(i, j) = x[static_cast<size_t>(j) * n + i];
        z(i, m) = y[i];
    }
    const VectorXd dist = _maha_dist(z);
    for (int i = 0; i < n; i++)
        d[i] = static_cast<float>(dist[i]);
}

// What is left of the samples: features behind a column of ones, y, weights (or none), and where each row
// stood in the input.
struct rows_t {
    MatrixXd x;
    VectorXd y, w;
    std::vector<int32_t> orig;
};

static rows_t _rows_load(const float *x, const float *y, const float *w, int n, int k)
{
    rows_t rows{MatrixXd(n, k), VectorXd(n), VectorXd(w ? n : 0), std::vector<int32_t>(n)};
    for (int i = 0; i < n; i++) {
        rows.x(i, 0) = 1;
        for (int j = 1; j < k; j++)
            rows.x(i, j) = x[static_cast<size_t>(j - 1) * n + i];
        rows.y[i] = y[i];
        if (w)
            rows.w[i] = w[i];
    }
    std::iota(rows.orig.begin(), rows.orig.end(), 0);
    return rows;
}

// Drops the most distant rows, at most limit of them; ties go by position. Returns their input indices.
static std::vector<int32_t> _rows_drop_far(rows_t &rows, size_t limit)
{
    const auto n = static_cast<Eigen::Index>(rows.orig.size());
    const auto features = rows.x.cols() - 1;
    MatrixXd z(n, features + 1);
    z.leftCols(features) = rows.x.rightCols(features);
    z.col(features) = rows.y;
    const VectorXd d = _maha_dist(z);

    std::vector<double> sorted(d.data(), d.data() + n);
    const size_t at = sorted.size() > limit ? sorted.size() - limit : 0;
    // What is not a number sorts last: it then is the threshold, which nothing reaches.
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<ptrdiff_t>(at), sorted.end(),
                     [](double a, double b) { return a < b || (!std::isnan(a) && std::isnan(b)); });
    const double threshold = sorted[at];

    std::vector<int32_t> dropped;
    Eigen::Index kept = 0;
    for (Eigen::Index i = 0; i < n; i++) {
        if (dropped.size() < limit && d[i] >= threshold) {
            dropped.push_back(rows.orig[i]);
            continue;
        }
        rows.x.row(kept) = rows.x.row(i);
        rows.y[kept] = rows.y[i];
        if (rows.w.size())
            rows.w[kept] = rows.w[i];
        rows.orig[kept++] = rows.orig[i];
    }
    rows.x.conservativeResize(kept, Eigen::NoChange);
    rows.y.conservativeResize(kept);
    if (rows.w.size())
        rows.w.conservativeResize(kept);
    rows.orig.resize(kept);
    return dropped;
}

void tq_math_multiple_linear_fit_outlier_remove_f32(const float *x, const float *y, const float *w, int n,
                                                    float *coef, int k, float *r, int32_t *outlier_idx,
                                                    int32_t *n_outlier, int max_iter, float ratio,
                                                    float r_target)
{
    if (n < 2 || k < 1 || !coef || !y || !x) {
        std::fputs(" tq_math_multiple_linear_fit_outlier_remove_f32 parameter error", stdout);
        return;
    }
    const float share = static_cast<float>(n) * ratio;
    const size_t per_pass = share >= 1 ? static_cast<size_t>(std::min(share, static_cast<float>(n))) : 1;
    rows_t rows = _rows_load(x, y, w, n, k);
    VectorXd best = VectorXd::Zero(k);
    double cur_r = 0, prev_r = 0;
    std::vector<int32_t> outliers, last;
    for (int pass = 0; pass < max_iter && !rows.orig.empty(); pass++) {
        const VectorXd b = normal_equations_solve(rows.x, rows.y, rows.w);
        cur_r = normal_equations_r(rows.x, rows.y, rows.w, b);
        if (cur_r < prev_r) {
            // The last removal did harm. Before the first one there is nothing to go back to.
            if (pass == 0)
                best = b;
            cur_r = prev_r;
            break;
        }
        best = b;
        if (cur_r >= r_target)
            break;
        std::vector<int32_t> dropped = _rows_drop_far(rows, per_pass);
        // The list stays one pass behind: what the last pass drops is not reported.
        outliers.insert(outliers.end(), last.begin(), last.end());
        last = std::move(dropped);
        prev_r = cur_r;
    }
    for (int j = 0; j < k; j++)
        coef[j] = static_cast<float>(best[j]);
    if (r)
        *r = static_cast<float>(cur_r);
    if (!n_outlier)
        return;
    const size_t room = *n_outlier > 0 ? static_cast<size_t>(*n_outlier) : 0;
    if (outlier_idx)
        std::copy_n(outliers.begin(), std::min(room, outliers.size()), outlier_idx);
    *n_outlier = static_cast<int32_t>(outliers.size());
}
