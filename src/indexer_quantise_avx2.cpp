// FastQuantiser for processors with AVX2: the arithmetic of the SSE2 form on twice as many values at a time.
// indexer_quantise_fast.cpp says why it is exact.
#include "src/indexer_quantise.h"

#if PLYCONVERT_AVX2
#include <immintrin.h>
#endif

namespace Tavrin::GaussionSplat {

#if PLYCONVERT_AVX2

// Always inlined: the compiler for Windows does not align wide vectors that it passes on the stack.
#define PLYCONVERT_INLINE_AVX2 __attribute__((target("avx2"), always_inline)) inline

namespace {

constexpr int fractionBits = FastQuantiser::fractionBits;

// trunc((value - min) / extent * 65535.5) of four values. doubtful collects the lanes where the result might
// differ.
PLYCONVERT_INLINE_AVX2 __m128i wideFour(const float* values, const double* min, const double* factor,
                                        __m128i& doubtful) {
    const __m256d margin = _mm256_set1_pd(0x1p-30);
    const __m256d difference = _mm256_sub_pd(_mm256_cvtps_pd(_mm_loadu_ps(values)), _mm256_loadu_pd(min));
    const __m256d product = _mm256_mul_pd(difference, _mm256_loadu_pd(factor));
    const __m128i above = _mm256_cvttpd_epi32(_mm256_add_pd(product, margin));
    const __m128i below = _mm256_cvttpd_epi32(_mm256_sub_pd(product, margin));
    doubtful = _mm_or_si128(doubtful, _mm_or_si128(_mm_xor_si128(above, below), _mm_srli_epi32(above, 16)));
    return above;
}

// Eight coefficients of one channel, in units of fixed point.
PLYCONVERT_INLINE_AVX2 __m256i fixedPoint(const float* values, float min, float factor) {
    const __m256 difference = _mm256_sub_ps(_mm256_loadu_ps(values), _mm256_set1_ps(min));
    return _mm256_cvttps_epi32(_mm256_mul_ps(difference, _mm256_set1_ps(factor)));
}
struct FixedPoint {
    __m256i red;
    __m256i green;
    __m256i blue;
};

// Zero where units are the first or the last ones of a step.
PLYCONVERT_INLINE_AVX2 __m256i distanceFromEdge(__m256i units) {
    return _mm256_and_si256(_mm256_add_epi32(units, _mm256_set1_epi32(1)),
                            _mm256_set1_epi32((1 << fractionBits) - 2));
}

// The same, but never zero near zero.
PLYCONVERT_INLINE_AVX2 __m256i distanceFromDoubt(__m256i units) {
    return _mm256_sub_epi32(distanceFromEdge(units), _mm256_cmpeq_epi32(units, _mm256_setzero_si256()));
}

PLYCONVERT_INLINE_AVX2 __m256i least(__m256i a, __m256i b, __m256i c) {
    return _mm256_min_epu32(_mm256_min_epu32(a, b), c);
}

PLYCONVERT_INLINE_AVX2 __m256i leastFromEdge(const FixedPoint& units) {
    return least(distanceFromEdge(units.red), distanceFromEdge(units.green), distanceFromEdge(units.blue));
}

// A bit for each lane that is in doubt.
PLYCONVERT_INLINE_AVX2 unsigned doubtfulLanes(const FixedPoint& units) {
    const __m256i distance =
        least(distanceFromDoubt(units.red), distanceFromDoubt(units.green), distanceFromDoubt(units.blue));
    return static_cast<unsigned>(
        _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(distance, _mm256_setzero_si256()))));
}

PLYCONVERT_INLINE_AVX2 __m256i packWords(const FixedPoint& units) {
    const __m256i red = _mm256_srli_epi32(units.red, fractionBits);
    const __m256i green = _mm256_slli_epi32(_mm256_srli_epi32(units.green, fractionBits), 11);
    const __m256i blue = _mm256_slli_epi32(_mm256_srli_epi32(units.blue, fractionBits), 21);
    return _mm256_or_si256(_mm256_or_si256(red, green), blue);
}

} // namespace

__attribute__((target("avx2"))) bool FastQuantiser::quantiseWide(const float* splat,
                                                                 SplatsData& record) const {
    __m128i doubtful = _mm_setzero_si128();
    // The fourth lane holds the next attribute's value. The gap's factor of 0 turns it to 0. Where it is not
    // finite, the plain form takes the splat.
    const __m128i normal = wideFour(splat + normalAt, wideMin_, wideFactor_, doubtful);
    const __m128i scale = wideFour(splat + scaleAt_, wideMin_ + 4, wideFactor_ + 4, doubtful);

    // The low byte of each is always right: a value too large for an integer is a multiple of 256, and NaN
    // gives 0.
    const __m128 colours =
        _mm_insert_ps(_mm_loadu_ps(splat + colourAt), _mm_load_ss(splat + opacityAt_), 3 << 4);
    const __m128i colourBytes = _mm_cvttps_epi32(_mm_mul_ps(colours, _mm_set1_ps(255.0f)));

    const __m128 rotationFactors = _mm_setr_ps(1023.5f, 1023.5f, 1023.5f, 3.5f);
    const __m128i rotation = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(splat + rotationAt_), rotationFactors));
    doubtful = _mm_or_si128(doubtful, _mm_srli_epi32(rotation, 10));
    if (_mm_testz_si128(doubtful, doubtful) == 0) {
        return false;
    }

    auto* const bytes = reinterpret_cast<__m128i*>(&record);
    const __m128i colourWord = _mm_shuffle_epi8(colourBytes, _mm_set1_epi32(0x0C080400));
    const __m128i position = _mm_loadu_si128(reinterpret_cast<const __m128i*>(splat + positionAt));
    _mm_storeu_si128(bytes, _mm_blend_epi16(position, colourWord, 0xC0));
    // The parts in pairs, part 0 + part 1 * 2^10 and part 2 + part 3 * 2^10. Bits of part 3 above the second
    // are shifted out.
    const __m128i pairs = _mm_madd_epi16(_mm_packs_epi32(rotation, rotation), _mm_set1_epi32(1 | 1024 << 16));
    const __m128i rotationWord = _mm_or_si128(pairs, _mm_slli_epi32(_mm_srli_si128(pairs, 4), 20));
    const __m128i scaleAndNormal =
        _mm_shuffle_epi8(_mm_packus_epi32(scale, normal),
                         _mm_setr_epi8(0, 1, 2, 3, 4, 5, -1, -1, -1, -1, 8, 9, 10, 11, 12, 13));
    const __m128i rotationBetween = _mm_shuffle_epi8(
        rotationWord, _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 0, 1, 2, 3, -1, -1, -1, -1, -1, -1));
    _mm_storeu_si128(bytes + 1, _mm_or_si128(scaleAndNormal, rotationBetween));
    if (settings_.hasCoefficients) {
        quantiseCoefficientsWide(splat + coefficientsAt, record);
    }
    return true;
}

// Fifteen words, the eighth of them twice.
__attribute__((target("avx2"))) void FastQuantiser::quantiseCoefficientsWide(const float* reds,
                                                                             SplatsData& record) const {
    constexpr std::size_t secondAt = coefficientsPerChannel - 8;
    const float* const greens = reds + coefficientsPerChannel;
    const float* const blues = greens + coefficientsPerChannel;
    const FixedPoint first{.red = fixedPoint(reds, coefficientMin_[0], coefficientFactor_[0]),
                           .green = fixedPoint(greens, coefficientMin_[1], coefficientFactor_[1]),
                           .blue = fixedPoint(blues, coefficientMin_[2], coefficientFactor_[2])};
    const FixedPoint second{.red = fixedPoint(reds + secondAt, coefficientMin_[0], coefficientFactor_[0]),
                            .green = fixedPoint(greens + secondAt, coefficientMin_[1], coefficientFactor_[1]),
                            .blue = fixedPoint(blues + secondAt, coefficientMin_[2], coefficientFactor_[2])};
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(record.packed), packWords(first));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(record.packed + secondAt), packWords(second));
    record.packed[coefficientsPerChannel] = 0;

    const __m256i elevenBits =
        _mm256_or_si256(_mm256_or_si256(first.red, first.blue), _mm256_or_si256(second.red, second.blue));
    const __m256i tenBits = _mm256_or_si256(first.green, second.green);
    const __m256i excess = _mm256_or_si256(_mm256_srli_epi32(elevenBits, fractionBits + 11),
                                           _mm256_srli_epi32(tenBits, fractionBits + 10));
    const __m256i nearest = _mm256_min_epu32(leastFromEdge(first), leastFromEdge(second));
    const __m256i onEdge = _mm256_cmpeq_epi32(nearest, _mm256_setzero_si256());
    const __m256i inDoubt = _mm256_or_si256(onEdge, excess);
    if (_mm256_testz_si256(inDoubt, inDoubt) == 0) {
        const bool fits = _mm256_testz_si256(excess, excess) != 0;
        constexpr unsigned allWords = (1u << coefficientsPerChannel) - 1;
        packPlainly(fits ? doubtfulLanes(first) | doubtfulLanes(second) << secondAt : allWords, reds, record);
    }
}

#else

bool FastQuantiser::quantiseWide(const float*, SplatsData&) const {
    return false;
}
void FastQuantiser::quantiseCoefficientsWide(const float*, SplatsData&) const {}

#endif

} // namespace Tavrin::GaussionSplat
