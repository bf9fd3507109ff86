#include "src/indexer_quantise.h"

#include "src/chunker_decode.h"

#include <cmath>
#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#define PLYCONVERT_SSE2 1
#include <emmintrin.h>
#else
#define PLYCONVERT_SSE2 0
#endif

namespace Tavrin::GaussionSplat {

namespace {

// The reciprocal of an extent, or 0 where every finite value quantises to 0: an extent of zero gives NaN or
// an infinity, and an infinite extent gives 0, all of which truncate to 0. usable turns false where a
// reciprocal would lose precision.
double reciprocalOf(const QuantiseRange& range, bool& usable) {
    const double extent = std::abs(range.extent);
    if (!std::isfinite(extent) || extent == 0.0) {
        return 0.0;
    }
    usable = usable && extent > 0x1p-500 && extent < 0x1p500;
    return 1.0 / range.extent;
}

} // namespace

FastQuantiser::FastQuantiser(const QuantiseSettings& quantiseSettings)
    : settings(quantiseSettings), usable(PLYCONVERT_SSE2) {
    const RecordLayout& layout = recordLayout(settings.hasShcoef);
    scaleAt = layout.scale;
    opacityAt = layout.opacity;
    rotationAt = layout.rotation;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        wideMin[axis] = settings.normal[axis].min;
        wideReciprocal[axis] = reciprocalOf(settings.normal[axis], usable);
        wideMin[3 + axis] = settings.scale[axis].min;
        wideReciprocal[3 + axis] = reciprocalOf(settings.scale[axis], usable);
    }
    for (std::size_t lane = 0; lane < coefficientLanes; ++lane) {
        const bool padding = lane >= 3 * shcoefPerChannel;
        const QuantiseRange range = padding ? QuantiseRange{} : settings.shcoef[lane / shcoefPerChannel];
        coefficientMin[lane] = range.min;
        coefficientReciprocal[lane] = reciprocalOf(range, usable);
    }
}

void FastQuantiser::quantise(const float* splat, SplatsData& record) const {
    const bool packs = settings.hasShcoef && settings.compressed;
    if (usable && (packs || !settings.hasShcoef) && quantiseHead(splat, record) &&
        (!packs || quantiseCoefficients(splat + shcoefAt, record))) {
        return;
    }
    quantiseSplat(splat, settings, record);
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

// trunc((value - min) / extent * 65535.5) of two values, in the low half. With the reciprocal the product
// differs from the divided one by a few units in the last place, below 2^-34 for results up to 65535.5, so
// the integers agree unless the product lies within 2^-30 of one; doubtful collects the lanes where it does,
// or where the result has more than 16 bits.
__m128i wideTwo(__m128 values, const double* min, const double* reciprocal, __m128i& doubtful) {
    const __m128d margin = _mm_set1_pd(0x1p-30);
    const __m128d difference = _mm_sub_pd(_mm_cvtps_pd(values), _mm_load_pd(min));
    const __m128d product = _mm_mul_pd(_mm_mul_pd(difference, _mm_load_pd(reciprocal)), _mm_set1_pd(65535.5));
    const __m128i above = _mm_cvttpd_epi32(_mm_add_pd(product, margin));
    const __m128i below = _mm_cvttpd_epi32(_mm_sub_pd(product, margin));
    doubtful = _mm_or_si128(doubtful, _mm_or_si128(_mm_xor_si128(above, below), _mm_srli_epi32(above, 16)));
    return above;
}

} // namespace

// Position, colour, scale, rotation and normal. False when a value needs the plain form.
bool FastQuantiser::quantiseHead(const float* splat, SplatsData& record) const {
    __m128i doubtful = _mm_setzero_si128();
    const float* const normal = splat + normalAt;
    const float* const scale = splat + scaleAt;
    const __m128i normalXy = wideTwo(loadTwo(normal), wideMin, wideReciprocal, doubtful);
    const __m128i normalZScaleX = wideTwo(_mm_unpacklo_ps(_mm_load_ss(normal + 2), _mm_load_ss(scale)),
                                          wideMin + 2, wideReciprocal + 2, doubtful);
    const __m128i scaleYz = wideTwo(loadTwo(scale + 1), wideMin + 4, wideReciprocal + 4, doubtful);

    const __m128 colours =
        _mm_movelh_ps(loadTwo(splat + colourAt),
                      _mm_unpacklo_ps(_mm_load_ss(splat + colourAt + 2), _mm_load_ss(splat + opacityAt)));
    const __m128i colourBytes = _mm_cvttps_epi32(_mm_mul_ps(colours, _mm_set1_ps(255.0f)));
    doubtful = _mm_or_si128(doubtful, _mm_srli_epi32(colourBytes, 8));

    const __m128 rotationFactors = _mm_setr_ps(1023.5f, 1023.5f, 1023.5f, 3.5f);
    const __m128i rotation = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(splat + rotationAt), rotationFactors));
    doubtful = _mm_or_si128(doubtful, _mm_srli_epi32(rotation, 10));
    alignas(16) std::uint32_t parts[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(parts), rotation);
    if (anyBit(doubtful) || parts[3] > 3) {
        return false;
    }

    std::memcpy(record.position, splat + positionAt, sizeof record.position);
    const __m128i words = _mm_packs_epi32(colourBytes, colourBytes);
    const int colourWord = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
    std::memcpy(record.colour, &colourWord, sizeof record.colour);
    const std::uint32_t rotationWord = parts[0] | parts[1] << 10 | parts[2] << 20 | parts[3] << 30;
    std::memcpy(record.rotation, &rotationWord, sizeof record.rotation);
    alignas(16) std::uint32_t wide[3][4];
    _mm_store_si128(reinterpret_cast<__m128i*>(wide[0]), normalXy);
    _mm_store_si128(reinterpret_cast<__m128i*>(wide[1]), normalZScaleX);
    _mm_store_si128(reinterpret_cast<__m128i*>(wide[2]), scaleYz);
    record.normal[0] = static_cast<std::uint16_t>(wide[0][0]);
    record.normal[1] = static_cast<std::uint16_t>(wide[0][1]);
    record.normal[2] = static_cast<std::uint16_t>(wide[1][0]);
    record.scale[0] = static_cast<std::uint16_t>(wide[1][1]);
    record.scale[1] = static_cast<std::uint16_t>(wide[2][0]);
    record.scale[2] = static_cast<std::uint16_t>(wide[2][1]);
    return true;
}

// The packed words. False when a value needs the plain form.
//
// A coefficient is normalised in double precision, rounded to single and then scaled in single precision.
// With the reciprocal the double differs from the divided one by at most three units in the last place. Both
// round to the same float unless one of them is that close to the midpoint of two floats, that is, unless the
// 29 bits that the rounding drops are within 8 of 2^28. (Floats below the normal range round elsewhere, but
// scale to 0 all the same.)
bool FastQuantiser::quantiseCoefficients(const float* shcoef, SplatsData& record) const {
    alignas(16) float normalised[coefficientLanes];
    const __m128i toMidpoint = _mm_set1_epi32(8 - 0x10000000);
    const __m128i awayFromMidpoint = _mm_set1_epi32(0x1FFFFFF0);
    __m128i nearMidpoint = _mm_setzero_si128();
    for (std::size_t lane = 0; lane < coefficientLanes; lane += 4) {
        // The padding lanes read the opacity and the scale behind the coefficients.
        const __m128 values = _mm_loadu_ps(shcoef + lane);
        const __m128d low = _mm_mul_pd(_mm_sub_pd(_mm_cvtps_pd(values), _mm_load_pd(coefficientMin + lane)),
                                       _mm_load_pd(coefficientReciprocal + lane));
        const __m128d high = _mm_mul_pd(
            _mm_sub_pd(_mm_cvtps_pd(_mm_movehl_ps(values, values)), _mm_load_pd(coefficientMin + lane + 2)),
            _mm_load_pd(coefficientReciprocal + lane + 2));
        const __m128i lowBits = _mm_castps_si128(
            _mm_shuffle_ps(_mm_castpd_ps(low), _mm_castpd_ps(high), _MM_SHUFFLE(2, 0, 2, 0)));
        const __m128i distance = _mm_and_si128(_mm_add_epi32(lowBits, toMidpoint), awayFromMidpoint);
        nearMidpoint = _mm_or_si128(nearMidpoint, _mm_cmpeq_epi32(distance, _mm_setzero_si128()));
        _mm_store_ps(normalised + lane, _mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high)));
    }
    normalised[45] = normalised[46] = normalised[47] = 0.0f;

    __m128i doubtful = nearMidpoint;
    const __m128 scale11 = _mm_set1_ps(2047.5f);
    const __m128 scale10 = _mm_set1_ps(1023.5f);
    for (std::size_t k = 0; k < 16; k += 4) { // the sixteenth word is made of neighbours and cleared below
        const __m128i red = _mm_cvttps_epi32(_mm_mul_ps(_mm_load_ps(normalised + k), scale11));
        const __m128i green =
            _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(normalised + shcoefPerChannel + k), scale10));
        const __m128i blue =
            _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(normalised + 2 * shcoefPerChannel + k), scale11));
        doubtful = _mm_or_si128(doubtful, _mm_srli_epi32(_mm_or_si128(red, blue), 11));
        doubtful = _mm_or_si128(doubtful, _mm_srli_epi32(green, 10));
        const __m128i word =
            _mm_or_si128(_mm_or_si128(red, _mm_slli_epi32(green, 11)), _mm_slli_epi32(blue, 21));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(record.packed + k), word);
    }
    record.packed[shcoefPerChannel] = 0;
    return !anyBit(doubtful);
}

#else

bool FastQuantiser::quantiseHead(const float*, SplatsData&) const {
    return false;
}
bool FastQuantiser::quantiseCoefficients(const float*, SplatsData&) const {
    return false;
}

#endif

} // namespace Tavrin::GaussionSplat
