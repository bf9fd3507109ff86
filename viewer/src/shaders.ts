// The three programs of the renderer. Records stay as they are in the dataset; everything is decoded here.
//
// Texture arrays: `first` holds the first half of a record (x y z, colour and opacity), `second` the second half (scale, rotation,
// normal), `harmonics` 15 words of coefficients side by side. With coefficients, the last word of `second` (normal y and z) is
// replaced by the colour as seen from the eye. In `byteValues`, `ranges` and `eyes` each dataset has a row: what its bytes mean,
// its ranges, and the eye as its positions see it, as a sum of two singles.
import { mostFading } from "./fading.ts";

const header = `#version 300 es
precision highp float;
precision highp int;
precision highp usampler2DArray;
precision highp sampler2D;
uniform usampler2DArray first;
uniform ivec2 shape; // columns and rows of a layer
uniform sampler2D byteValues; // of red, green, blue and opacity
uniform sampler2D ranges;
uniform sampler2D eyes;
ivec3 placeOf(int slot) { return ivec3(slot % shape.x, (slot / shape.x) % shape.y, slot / (shape.x * shape.y)); }
vec4 valuesOf(uint word, int row) {
    return vec4(texelFetch(byteValues, ivec2(word & 255u, row), 0).r, texelFetch(byteValues, ivec2((word >> 8) & 255u, row), 0).g,
                texelFetch(byteValues, ivec2((word >> 16) & 255u, row), 0).b, texelFetch(byteValues, ivec2(word >> 24, row), 0).a);
}
vec3 fromEye(uvec4 texel, int row) {
    return (uintBitsToFloat(texel.xyz) - texelFetch(eyes, ivec2(0, row), 0).xyz) - texelFetch(eyes, ivec2(1, row), 0).xyz;
}
`;

export const splatVertex = `${header}
layout(location = 0) in uint marked; // the slot in the lower bits, the dataset or a fading piece above
uniform int slotBits;
uniform usampler2DArray second;
uniform mat3 turn; // to the camera's right, up and forward
uniform vec2 size; // of the picture, pixels
uniform float focal; // pixels
uniform float pointSize; // pixels; 0 draws Gaussians
uniform int fadingFrom; // number of the first fading piece
uniform vec2 fades[${mostFading}]; // their datasets, and how much of their opacity is there
flat out vec4 colour;
out vec2 place;
const float leastAlpha = 1.0 / 255.0;
const float nearest = 0.2;
const float blurring = 0.3; // variance in pixels: small splats do not fall between pixels
const vec4 hidden = vec4(0.0, 0.0, 2.0, 1.0);

vec3 scaleOf(uvec4 texel, vec3 least, vec3 span) {
    uvec3 q = uvec3(texel.x & 65535u, texel.x >> 16, texel.y & 65535u);
    vec3 t = (vec3(q) + 0.5) / 65535.5;
    vec3 last = vec3((65535.0 / 65535.5 + 1.0) * 0.5);
    return least + mix(t, last, equal(q, uvec3(65535u))) * span;
}
mat3 axesOf(uint word) {
    uvec3 q = uvec3(word, word >> 10, word >> 20) & 1023u;
    vec3 t = mix((vec3(q) + 0.5) / 1023.5, vec3((1023.0 / 1023.5 + 1.0) * 0.5), equal(q, uvec3(1023u)));
    vec3 p = (t - 0.5) / (1.4142135 * 0.5);
    float rest = 1.0 - dot(p, p);
    if (word == 0u || rest < 0.0) return mat3(1.0);
    float m = sqrt(rest);
    uint largest = word >> 30;
    vec4 r = largest == 0u ? vec4(m, p) : largest == 1u ? vec4(p.x, m, p.yz) : largest == 2u ? vec4(p.xy, m, p.z) : vec4(p, m);
    float x = r.x, y = r.y, z = r.z, w = r.w;
    return mat3(1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + w * z), 2.0 * (x * z - w * y),
                2.0 * (x * y - w * z), 1.0 - 2.0 * (x * x + z * z), 2.0 * (y * z + w * x),
                2.0 * (x * z + w * y), 2.0 * (y * z - w * x), 1.0 - 2.0 * (x * x + y * y));
}
vec3 unpackColour(uint word) {
    return vec3(word & 2047u, (word >> 11) & 2047u, (word >> 22) * 2u) / 1023.5;
}
void main() {
    gl_Position = hidden;
    int row = int(marked >> slotBits);
    float share = 1.0;
    if (row >= fadingFrom) {
        vec2 fade = fades[row - fadingFrom];
        row = int(fade.x);
        share = fade.y;
    }
    ivec3 at = placeOf(int(marked & ((1u << slotBits) - 1u)));
    uvec4 one = texelFetch(first, at, 0);
    vec3 view = turn * fromEye(one, row);
    vec4 values = valuesOf(one.w, row);
    values.a *= share;
    if (!(view.z >= nearest) || values.a < leastAlpha) return;
    vec2 corner = vec2(gl_VertexID & 1, gl_VertexID >> 1) * 2.0 - 1.0;
    vec2 tangent = view.xy / view.z;
    vec2 centre = focal * tangent;
    uvec4 two = texelFetch(second, at, 0);
    vec4 scaleMin = texelFetch(ranges, ivec2(0, row), 0);
    colour = vec4(scaleMin.w > 0.0 ? unpackColour(two.w) : values.rgb, values.a);
    if (pointSize > 0.0) {
        place = vec2(0.0);
        gl_Position = vec4((centre + corner * 0.5 * pointSize) * 2.0 / size, 0.0, 1.0);
        return;
    }
    // The perspective is approximated as linear over a splat. Far outside the picture this is wrong, and would smear splats across it.
    vec2 limit = 1.3 * 0.5 * size / focal;
    vec2 bent = clamp(tangent, -limit, limit);
    vec3 extent = scaleOf(two, scaleMin.xyz, texelFetch(ranges, ivec2(1, row), 0).xyz);
    mat3 axes = axesOf((two.y >> 16) | (two.z << 16));
    vec3 c = vec3(blurring, 0.0, blurring); // covariance: xx, xy, yy
    for (int i = 0; i < 3; ++i) {
        vec3 axis = turn * (axes[i] * extent[i]);
        vec2 a = focal / view.z * (axis.xy - bent * axis.z);
        c += vec3(a.x * a.x, a.x * a.y, a.y * a.y);
    }
    float mid = 0.5 * (c.x + c.z);
    float apart = length(vec2(0.5 * (c.x - c.z), c.y));
    float reach = sqrt(2.0 * log(values.a / leastAlpha));
    vec2 major = abs(c.y) > 1e-6 * mid ? normalize(vec2(c.y, mid + apart - c.x)) : (c.x >= c.z ? vec2(1.0, 0.0) : vec2(0.0, 1.0));
    vec2 lengths = sqrt(vec2(mid + apart, max(mid - apart, 0.1)));
    float furthest = reach * lengths.x;
    if (any(greaterThan(abs(centre), 0.5 * size + furthest))) return;
    place = corner * reach;
    vec2 pixel = centre + place.x * lengths.x * major + place.y * lengths.y * vec2(-major.y, major.x);
    gl_Position = vec4(pixel * 2.0 / size, 0.0, 1.0);
}
`;

export const splatFragment = `#version 300 es
precision highp float;
flat in vec4 colour;
in vec2 place;
uniform float pointSize;
out vec4 result;
const float mostAlpha = 0.99;
void main() {
    float alpha = min(mostAlpha, colour.a * exp(-0.5 * dot(place, place)));
    if (pointSize > 0.0) alpha = 1.0;
    if (alpha < 1.0 / 255.0) discard;
    result = vec4(colour.rgb * alpha, alpha);
}
`;

export const screenVertex = `#version 300 es
void main() {
    gl_Position = vec4(vec2(gl_VertexID & 1, gl_VertexID >> 1) * 4.0 - 1.0, 0.0, 1.0);
}
`;

// Runs once a splat: a fragment is a slot of `second`. Colours get 11, 11 and 10 bits over 0 to 2.
export const colourFragment = `${header}
uniform usampler2DArray harmonics;
uniform int layer;
uniform int owner; // the dataset
out uvec4 result;
vec3 coefficient(ivec3 at, int k) {
    uint word = texelFetch(harmonics, ivec3(at.x + k, at.yz), 0).r;
    uvec3 q = uvec3(word & 2047u, (word >> 11) & 1023u, word >> 21);
    const vec3 factor = vec3(2047.5, 1023.5, 2047.5);
    const vec3 most = vec3(2047.0, 1023.0, 2047.0);
    vec3 t = mix((vec3(q) + 0.5) / factor, (most / factor + 1.0) * 0.5, equal(q, uvec3(most)));
    return texelFetch(ranges, ivec2(2, owner), 0).xyz + t * texelFetch(ranges, ivec2(3, owner), 0).xyz;
}
void main() {
    ivec3 place = ivec3(ivec2(gl_FragCoord.xy), layer);
    uvec4 one = texelFetch(first, place, 0);
    vec3 d = normalize(fromEye(one, owner));
    ivec3 at = ivec3(15 * place.x, place.yz);
    float x = d.x, y = d.y, z = d.z, xx = x * x, yy = y * y, zz = z * z;
    vec3 c = valuesOf(one.w, owner).rgb;
    c += -0.4886025119 * y * coefficient(at, 0) + 0.4886025119 * z * coefficient(at, 1) - 0.4886025119 * x * coefficient(at, 2);
    c += 1.0925484306 * x * y * coefficient(at, 3) - 1.0925484306 * y * z * coefficient(at, 4);
    c += 0.3153915653 * (2.0 * zz - xx - yy) * coefficient(at, 5) - 1.0925484306 * x * z * coefficient(at, 6);
    c += 0.5462742153 * (xx - yy) * coefficient(at, 7);
    c += -0.5900435899 * y * (3.0 * xx - yy) * coefficient(at, 8) + 2.8906114426 * x * y * z * coefficient(at, 9);
    c += -0.4570457995 * y * (4.0 * zz - xx - yy) * coefficient(at, 10);
    c += 0.3731763326 * z * (2.0 * zz - 3.0 * xx - 3.0 * yy) * coefficient(at, 11);
    c += -0.4570457995 * x * (4.0 * zz - xx - yy) * coefficient(at, 12) + 1.4453057213 * z * (xx - yy) * coefficient(at, 13);
    c += -0.5900435899 * x * (xx - 3.0 * yy) * coefficient(at, 14);
    uvec3 q = uvec3(clamp(c * 1023.5 + 0.5, 0.0, 2047.0));
    result = uvec4(0u, 0u, 0u, q.r | (q.g << 11) | ((q.b >> 1) << 22));
}
`;
