// Least squares without outlier removal: one line, several features, powers of one.
#include <cmath>

#include "math/normal_equations.h"
#include "tq_math.h"

using Eigen::MatrixXd;
using Eigen::VectorXd;

void tq_math_linear_LSR_u16(const uint16_t *x, const uint16_t *y, int n, float *slope, float *offset,
                            float *r)
{
    // Wrapping sums: beyond 46340 samples of full scale the determinant passes 63 bits.
    uint64_t sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (int i = 0; i < n; i++) {
        sx += x[i];
        sy += y[i];
        sxx += static_cast<uint64_t>(x[i]) * x[i];
        sxy += static_cast<uint64_t>(x[i]) * y[i];
    }
    const auto f32 = [](uint64_t v) { return static_cast<float>(static_cast<int64_t>(v)); };
    const auto count = static_cast<uint64_t>(n > 0 ? n : 0);
    const float det = f32(count * sxx - sx * sx);
    const float s = f32(count * sxy - sx * sy) / det;
    const float o = f32(sxx * sy - sxy * sx) / det;
    *slope = s;
    *offset = o;
    if (!r)
        return;
    const float mean = f32(sy) / static_cast<float>(count);
    float tot = 0, res = 0;
    for (int i = 0; i < n; i++) {
        const float dev = y[i] - mean;
        const float err = y[i] - (s * x[i] + o);
        tot += dev * dev;
        res += err * err;
    }
    *r = 1 - res / tot;
}

void tq_math_linear_LSR_f32(const float *x, const float *y, int n, float *slope, float *offset, float *r)
{
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (int i = 0; i < n; i++) {
        sx += x[i];
        sy += y[i];
        sxx += x[i] * x[i];
        sxy += x[i] * y[i];
    }
    const double count = n > 0 ? n : 0;
    const double det = count * sxx - sx * sx;
    const float s = static_cast<float>((count * sxy - sx * sy) / det);
    const float o = static_cast<float>((sxx * sy - sxy * sx) / det);
    *slope = s;
    *offset = o;
    if (!r)
        return;
    const double mean = sy / count;
    double tot = 0, res = 0;
    for (int i = 0; i < n; i++) {
        const double dev = y[i] - mean;
        const float err = y[i] - (s * x[i] + o);
        tot += dev * dev;
        res += err * err;
    }
    *r = static_cast<float>(1 - res / tot);
}

static void _fit(const MatrixXd &x, const VectorXd &y, const float *w, float *coef, float *r)
{
    VectorXd weights;
    if (w)
        weights = Eigen::Map<const Eigen::VectorXf>(w, y.size()).cast<double>();
    const VectorXd b = normal_equations_solve(x, y, weights);
    for (Eigen::Index j = 0; j < b.size(); j++)
        coef[j] = static_cast<float>(b[j]);
    if (r)
        *r = static_cast<float>(normal_equations_r(x, y, weights, b));
}

template <typename T>
static void _multiple_linear_fit(const T *x, const T *y, const float *w, int n, float *coef, int k, float *r)
{
    if (k < 2 || !coef || !y || !x)
        return;
    n = n > 0 ? n : 0;
    MatrixXd a(n, k);
    VectorXd b(n);
    for (int i = 0; i < n; i++) {
        a(i, 0) = 1;
        for (int j = 1; j < k; j++)
            a(i, j) = x[static_cast<size_t>(j - 1) * n + i];
        b[i] = y[i];
    }
    _fit(a, b, w, coef, r);
}

void tq_math_multiple_linear_fit_f32(const float *x, const float *y, const float *w, int n, float *coef,
                                     int k, float *r)
{
    _multiple_linear_fit(x, y, w, n, coef, k, r);
}

void tq_math_multiple_linear_fit_u16(const uint16_t *x, const uint16_t *y, const float *w, int n, float *coef,
                                     int k, float *r)
{
    _multiple_linear_fit(x, y, w, n, coef, k, r);
}

void tq_math_polynomial_LSR_u16(const uint16_t *x, const uint16_t *y, const float *w, int n, float *coef,
                                int k, float *r)
{
    if (k < 1 || !coef || !y || !x)
        return;
    n = n > 0 ? n : 0;
    MatrixXd a(n, k);
    VectorXd b(n);
    for (int i = 0; i < n; i++) {
        for (int j = 0; j < k; j++)
            a(i, j) = powf(static_cast<float>(x[i]), static_cast<float>(j));
        b[i] = y[i];
    }
    _fit(a, b, w, coef, r);
}
