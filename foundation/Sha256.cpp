// SPDX-License-Identifier: Apache-2.0
#include "Sha256.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>

namespace vorlix {
namespace {

constexpr size_t kBlock = 64;   // bytes
constexpr size_t kLength = 8;   // bytes of the message's length, at the end of the last block
constexpr uint8_t kEnd = 0x80;  // the bit that ends the message

using State = std::array<uint32_t, 8>;

// FIPS 180-4, section 4.2.2: 32 bits of the fractions of the cube roots of the first 64 primes.
constexpr std::array<uint32_t, 64> kConstants = {
    0x428A2F98, 0x71374491, 0xB5C0FBCF, 0xE9B5DBA5, 0x3956C25B, 0x59F111F1, 0x923F82A4, 0xAB1C5ED5,
    0xD807AA98, 0x12835B01, 0x243185BE, 0x550C7DC3, 0x72BE5D74, 0x80DEB1FE, 0x9BDC06A7, 0xC19BF174,
    0xE49B69C1, 0xEFBE4786, 0x0FC19DC6, 0x240CA1CC, 0x2DE92C6F, 0x4A7484AA, 0x5CB0A9DC, 0x76F988DA,
    0x983E5152, 0xA831C66D, 0xB00327C8, 0xBF597FC7, 0xC6E00BF3, 0xD5A79147, 0x06CA6351, 0x14292967,
    0x27B70A85, 0x2E1B2138, 0x4D2C6DFC, 0x53380D13, 0x650A7354, 0x766A0ABB, 0x81C2C92E, 0x92722C85,
    0xA2BFE8A1, 0xA81A664B, 0xC24B8B70, 0xC76C51A3, 0xD192E819, 0xD6990624, 0xF40E3585, 0x106AA070,
    0x19A4C116, 0x1E376C08, 0x2748774C, 0x34B0BCB5, 0x391C0CB3, 0x4ED8AA4A, 0x5B9CCA4F, 0x682E6FF3,
    0x748F82EE, 0x78A5636F, 0x84C87814, 0x8CC70208, 0x90BEFFFA, 0xA4506CEB, 0xBEF9A3F7, 0xC67178F2};

// Section 5.3.3: likewise of the square roots of the first 8 primes.
constexpr State kInitial = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                            0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};

uint32_t bigEndian(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | uint32_t{bytes[3]};
}

// Section 6.2.2.
void addBlock(State& state, const uint8_t* block) {
  std::array<uint32_t, 64> words;
  for (size_t i = 0; i < 16; ++i) words[i] = bigEndian(block + i * 4);
  for (size_t i = 16; i < words.size(); ++i) {
    const uint32_t early = words[i - 15];
    const uint32_t late = words[i - 2];
    words[i] = words[i - 16] + (std::rotr(early, 7) ^ std::rotr(early, 18) ^ early >> 3) + words[i - 7] +
               (std::rotr(late, 17) ^ std::rotr(late, 19) ^ late >> 10);
  }
  auto [a, b, c, d, e, f, g, h] = state;
  for (size_t i = 0; i < words.size(); ++i) {
    const uint32_t first =
        h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + ((e & f) ^ (~e & g)) + kConstants[i] + words[i];
    const uint32_t second = (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + first;
    d = c;
    c = b;
    b = a;
    a = first + second;
  }
  const State mixed = {a, b, c, d, e, f, g, h};
  std::transform(state.begin(), state.end(), mixed.begin(), state.begin(),
                 [](uint32_t x, uint32_t y) { return x + y; });
}

std::string hexadecimal(const State& state) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint32_t word : state) {
    for (int shift = 28; shift >= 0; shift -= 4) text += kDigits[word >> shift & 15];
  }
  return text;
}

}  // namespace

std::string sha256(std::span<const uint8_t> bytes) {
  State state = kInitial;
  const uint64_t bits = uint64_t{bytes.size()} * 8;
  std::span<const uint8_t> rest = bytes;
  for (; rest.size() >= kBlock; rest = rest.subspan(kBlock)) addBlock(state, rest.data());

  std::array<uint8_t, 2 * kBlock> tail = {};
  std::copy(rest.begin(), rest.end(), tail.begin());
  tail[rest.size()] = kEnd;
  const size_t end = rest.size() + 1 + kLength <= kBlock ? kBlock : 2 * kBlock;
  for (size_t i = 0; i < kLength; ++i) tail[end - 1 - i] = static_cast<uint8_t>(bits >> 8 * i);
  for (size_t at = 0; at < end; at += kBlock) addBlock(state, tail.data() + at);
  return hexadecimal(state);
}

}  // namespace vorlix
