#include "src/indexer_quantise.h"

#include <bit>
#include <cmath>
#include <cstring>

#if PLYCONVERT_SSE2
#include <emmintrin.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

constexpr int fractionBits = FastQuantiser::fractionBits;

// The reciprocal of an extent, or 0 where every finite value quantises to 0. Two extents do that. An extent
// of zero divides values to NaN or infinity. An infinite extent divides them to 0. All of these truncate to
// 0. usable becomes false where a reciprocal would lose precision.
double reciprocalOf(const QuantiseRange& range, bool& usable) {
    const double extent = std::abs(range.extent);
    if (!std::isfinite(extent) || extent == 0.0) {
        return 0.0;
    }
    usable = usable && extent > 0x1p-500 && extent < 0x1p500;
    return 1.0 / range.extent;
}

} // namespace

FastQuantiser::FastQuantiser(const QuantiseSettings& settings, Kernels kernels)
    : settings_(settings), usable_(PLYCONVERT_SSE2 && (settings.compressed || !settings.hasCoefficients)),
      usesAvx2_(kernels == Kernels::avx2) {
    const RecordLayout& layout = recordLayout(settings_.hasCoefficients);
    scaleAt_ = layout.scale;
    opacityAt_ = layout.opacity;
    rotationAt_ = layout.rotation;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        wideMin_[axis] = settings_.normal[axis].min;
        wideFactor_[axis] = 65535.5 * reciprocalOf(settings_.normal[axis], usable_);
        wideMin_[4 + axis] = settings_.scale[axis].min;
        wideFactor_[4 + axis] = 65535.5 * reciprocalOf(settings_.scale[axis], usable_);
    }
    setCoefficients();
}

void FastQuantiser::setCoefficients() {
    constexpr double steps[] = {2047.5, 1023.5, 2047.5};
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const QuantiseRange& range = settings_.coefficients[channel];
        const double reciprocal = reciprocalOf(range, usable_);
        coefficientMin_[channel] = static_cast<float>(range.min);
        coefficientFactor_[channel] =
            static_cast<float>(std::ldexp(steps[channel] * reciprocal, fractionBits));
        // Single precision neither overflows nor loses bits on the way.
        usable_ = usable_ && (reciprocal == 0.0 ||
                              (range.min == coefficientMin_[channel] && std::abs(range.extent) > 0x1p-100 &&
                               std::abs(range.extent) < 0x1p100));
    }
}

void FastQuantiser::quantise(const float* splat, SplatsData& record) const {
    if (!usable_ || !(usesAvx2_ ? quantiseWide(splat, record) : quantiseNarrow(splat, record))) {
        quantiseSplat(splat, settings_, record);
    }
}

void FastQuantiser::packPlainly(unsigned words, const float* coefficients, SplatsData& record) const {
    for (; words != 0; words &= words - 1) {
        const auto k = static_cast<std::size_t>(std::countr_zero(words));
        record.packed[k] =
            packCoefficientWord(coefficients[k], coefficients[coefficientsPerChannel + k],
                                coefficients[2 * coefficientsPerChannel + k], settings_.coefficients);
    }
}

#if PLYCONVERT_SSE2

namespace {

bool anyBit(__m128i bits) {
    return _mm_movemask_epi8(_mm_cmpeq_epi32(bits, _mm_setzero_si128())) != 0xFFFF;
}

// Two floats in the low half, from any address that a float may have.
__m128 loadTwo(const float* values) {
    return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(values)));
}

// trunc((value - min) / extent * 65535.5) of two values, in the low half. Multiplying by the factor instead
// of dividing changes the result by a few units in the last place, below 2^-34 for results up to 65535.5. So
// the integers agree unless the product lies within 2^-30 of an integer. doubtful collects those lanes, and
// the lanes whose result has more than 16 bits.
__m128i wideTwo(__m128 values, __m128d min, __m128d factor, __m128i& doubtful) {
    const __m128d margin = _mm_set1_pd(0x1p-30);
    const __m128d difference = _mm_sub_pd(_mm_cvtps_pd(values), min);
    const __m128d product = _mm_mul_pd(difference, factor);
    const __m128i above = _mm_cvttpd_epi32(_mm_add_pd(product, margin));
    const __m128i below = _mm_cvttpd_epi32(_mm_sub_pd(product, margin));
    doubtful = _mm_or_si128(doubtful, _mm_or_si128(_mm_xor_si128(above, below), _mm_srli_epi32(above, 16)));
    return above;
}

// The two integers of wideTwo, the first in the low half.
std::uint64_t lowTwo(__m128i integers) {
    std::uint64_t both;
    _mm_storel_epi64(reinterpret_cast<__m128i*>(&both), integers);
    return both;
}

} // namespace

bool FastQuantiser::quantiseNarrow(const float* splat, SplatsData& record) const {
    __m128i doubtful = _mm_setzero_si128();
    const float* const normal = splat + normalAt;
    const float* const scale = splat + scaleAt_;
    const auto thirds = [](const double* values) {
        return _mm_unpacklo_pd(_mm_load_sd(values + 2), _mm_load_sd(values + 6));
    };
    const __m128i normalXy =
        wideTwo(loadTwo(normal), _mm_load_pd(wideMin_), _mm_load_pd(wideFactor_), doubtful);
    const __m128i scaleXy =
        wideTwo(loadTwo(scale), _mm_load_pd(wideMin_ + 4), _mm_load_pd(wideFactor_ + 4), doubtful);
    const __m128i bothZ = wideTwo(_mm_unpacklo_ps(_mm_load_ss(normal + 2), _mm_load_ss(scale + 2)),
                                  thirds(wideMin_), thirds(wideFactor_), doubtful);

    const __m128 colours =
        _mm_movelh_ps(loadTwo(splat + colourAt),
                      _mm_unpacklo_ps(_mm_load_ss(splat + colourAt + 2), _mm_load_ss(splat + opacityAt_)));
    const __m128i colourBytes = _mm_cvttps_epi32(_mm_mul_ps(colours, _mm_set1_ps(255.0f)));
    doubtful = _mm_or_si128(doubtful, _mm_srli_epi32(colourBytes, 8));

    const __m128 rotationFactors = _mm_setr_ps(1023.5f, 1023.5f, 1023.5f, 3.5f);
    const __m128i rotation = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(splat + rotationAt_), rotationFactors));
    const __m128i most = _mm_setr_epi32(1023, 1023, 1023, 3);
    doubtful =
        _mm_or_si128(doubtful, _mm_or_si128(_mm_srli_epi32(rotation, 10), _mm_cmpgt_epi32(rotation, most)));
    if (anyBit(doubtful)) {
        return false;
    }

    std::memcpy(record.position, splat + positionAt, sizeof record.position);
    const __m128i words = _mm_packs_epi32(colourBytes, colourBytes);
    const int colourWord = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
    std::memcpy(record.colour, &colourWord, sizeof record.colour);
    // The parts in pairs of 20 bits, part 0 + part 1 * 2^10 and part 2 + part 3 * 2^10.
    const std::uint64_t pairs =
        lowTwo(_mm_madd_epi16(_mm_packs_epi32(rotation, rotation), _mm_set1_epi32(1 | 1024 << 16)));
    const auto rotationWord = static_cast<std::uint32_t>(pairs | pairs >> 32 << 20);
    std::memcpy(record.rotation, &rotationWord, sizeof record.rotation);
    const std::uint64_t normals = lowTwo(normalXy);
    const std::uint64_t scales = lowTwo(scaleXy);
    const std::uint64_t thirdOnes = lowTwo(bothZ);
    record.normal[0] = static_cast<std::uint16_t>(normals);
    record.normal[1] = static_cast<std::uint16_t>(normals >> 32);
    record.normal[2] = static_cast<std::uint16_t>(thirdOnes);
    record.scale[0] = static_cast<std::uint16_t>(scales);
    record.scale[1] = static_cast<std::uint16_t>(scales >> 32);
    record.scale[2] = static_cast<std::uint16_t>(thirdOnes >> 32);
    if (settings_.hasCoefficients) {
        quantiseCoefficients(splat + coefficientsAt, record);
    }
    return true;
}

namespace {

// Four coefficients of one channel in their steps, in units of fixed point.
//
// The plain form normalises in double precision, rounds to single, scales in single precision and truncates:
// two roundings. This form rounds the difference, the factor and the product to single once each: three
// roundings. Five roundings change a result below 2^11 steps by at most 5 * 2^-24 of it, less than 0.63 of a
// unit of fixed point. So the steps agree unless the units are the first or the last ones of a step. Near
// zero they agree even there: values on both sides truncate to 0.
__m128i fixedPoint(const float* values, __m128 min, __m128 factor) {
    // The conversion gives the smallest integer for a value that no integer holds.
    return _mm_cvttps_epi32(_mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(values), min), factor));
}

// Zero where units are the first or the last ones of a step, else 2 to 1022.
__m128i distanceFromEdge(__m128i units) {
    return _mm_and_si128(_mm_add_epi32(units, _mm_set1_epi32(1)), _mm_set1_epi32((1 << fractionBits) - 2));
}

// The same, but never zero near zero.
__m128i distanceFromDoubt(__m128i units) {
    return _mm_sub_epi32(distanceFromEdge(units), _mm_cmpeq_epi32(units, _mm_setzero_si128()));
}

// A bit for each lane where one of the three is zero. Each has at most ten bits.
unsigned zeroLanes(__m128i a, __m128i b, __m128i c) {
    const __m128i least = _mm_min_epi16(_mm_min_epi16(a, b), c);
    return static_cast<unsigned>(
        _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(least, _mm_setzero_si128()))));
}

} // namespace

// Pack the words of all coefficients, the doubtful ones in the plain form.
void FastQuantiser::quantiseCoefficients(const float* coefficients, SplatsData& record) const {
    const __m128 redMin = _mm_set1_ps(coefficientMin_[0]);
    const __m128 greenMin = _mm_set1_ps(coefficientMin_[1]);
    const __m128 blueMin = _mm_set1_ps(coefficientMin_[2]);
    const __m128 redFactor = _mm_set1_ps(coefficientFactor_[0]);
    const __m128 greenFactor = _mm_set1_ps(coefficientFactor_[1]);
    const __m128 blueFactor = _mm_set1_ps(coefficientFactor_[2]);
    const float* const greens = coefficients + coefficientsPerChannel;
    const float* const blues = greens + coefficientsPerChannel;
    __m128i wide = _mm_setzero_si128();   // all bits of red and blue
    __m128i narrow = _mm_setzero_si128(); // all bits of green
    unsigned doubtfulWords = 0;
    // The sixteenth lane holds values of the next channel, or the opacity after the last channel. Its word is
    // zero.
    __m128i used = _mm_set1_epi32(-1);
    unsigned usedLanes = 15; // a bit for each
    for (std::size_t k = 0; k < 16; k += 4) {
        if (k == 12) {
            used = _mm_setr_epi32(-1, -1, -1, 0);
            usedLanes = 7;
        }
        const __m128i red = _mm_and_si128(fixedPoint(coefficients + k, redMin, redFactor), used);
        const __m128i green = _mm_and_si128(fixedPoint(greens + k, greenMin, greenFactor), used);
        const __m128i blue = _mm_and_si128(fixedPoint(blues + k, blueMin, blueFactor), used);
        wide = _mm_or_si128(wide, _mm_or_si128(red, blue));
        narrow = _mm_or_si128(narrow, green);
        unsigned doubtful =
            usedLanes & zeroLanes(distanceFromEdge(red), distanceFromEdge(green), distanceFromEdge(blue));
        if (doubtful != 0) {
            doubtful = zeroLanes(distanceFromDoubt(red), distanceFromDoubt(green), distanceFromDoubt(blue));
        }
        doubtfulWords |= doubtful << k;
        const __m128i redSteps = _mm_srli_epi32(red, fractionBits);
        const __m128i greenSteps = _mm_srli_epi32(green, fractionBits);
        const __m128i blueSteps = _mm_srli_epi32(blue, fractionBits);
        const __m128i word = _mm_or_si128(_mm_or_si128(redSteps, _mm_slli_epi32(greenSteps, 11)),
                                          _mm_slli_epi32(blueSteps, 21));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(record.packed + k), word);
    }
    if (anyBit(_mm_or_si128(_mm_srli_epi32(wide, fractionBits + 11),
                            _mm_srli_epi32(narrow, fractionBits + 10)))) {
        doubtfulWords = (1u << coefficientsPerChannel) - 1;
    }
    packPlainly(doubtfulWords, coefficients, record);
}

#else

bool FastQuantiser::quantiseNarrow(const float*, SplatsData&) const {
    return false;
}

#endif

} // namespace Tavrin::GaussionSplat
