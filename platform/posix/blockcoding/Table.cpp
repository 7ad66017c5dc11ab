// SPDX-License-Identifier: Apache-2.0
#include <zstd.h>

#include <new>

#include "Hashing.h"
#include "platform/posix/BlockCodingTable.h"

namespace vorlix {
namespace {

// A system's files become a few per cent larger than with the tool's own level 3, in about three quarters of the time.
constexpr int kLevel = 2;

struct Coder {
  ZSTD_CCtx* packer = nullptr;
  ZSTD_DCtx* unpacker = nullptr;
};

void freeCoder(void* opened) {
  auto* const coder = static_cast<Coder*>(opened);
  ZSTD_freeCCtx(coder->packer);
  ZSTD_freeDCtx(coder->unpacker);
  delete coder;
}

void* newCoder() {
  return new (std::nothrow) Coder;
}

size_t largestFrame(size_t count) {
  return ZSTD_compressBound(count);
}

// A context is made when it is first needed: who packs does not unpack.
bool hasPacker(Coder& coder) {
  if (coder.packer != nullptr) return true;
  coder.packer = ZSTD_createCCtx();
  return coder.packer != nullptr &&
         ZSTD_isError(ZSTD_CCtx_setParameter(coder.packer, ZSTD_c_compressionLevel, kLevel)) == 0 &&
         ZSTD_isError(ZSTD_CCtx_setParameter(coder.packer, ZSTD_c_checksumFlag, 1)) == 0 &&
         ZSTD_isError(ZSTD_CCtx_setParameter(coder.packer, ZSTD_c_contentSizeFlag, 1)) == 0;
}

int64_t pack(void* opened, const uint8_t* block, size_t size, uint8_t* frame, size_t room) {
  Coder& coder = *static_cast<Coder*>(opened);
  if (!hasPacker(coder)) return -1;
  const size_t packed = ZSTD_compress2(coder.packer, frame, room, block, size);
  return ZSTD_isError(packed) != 0 ? -1 : static_cast<int64_t>(packed);
}

int64_t unpack(void* opened, const uint8_t* frame, size_t size, uint8_t* block, size_t room) {
  Coder& coder = *static_cast<Coder*>(opened);
  if (coder.unpacker == nullptr) coder.unpacker = ZSTD_createDCtx();
  if (coder.unpacker == nullptr || ZSTD_findFrameCompressedSize(frame, size) != size) return -1;
  const size_t unpacked = ZSTD_decompressDCtx(coder.unpacker, block, room, frame, size);
  return ZSTD_isError(unpacked) != 0 ? -1 : static_cast<int64_t>(unpacked);
}

constexpr BlockCodingTable kTable = {newCoder,     freeCoder,     largestFrame,   pack,           unpack,
                                     newBlockHash, freeBlockHash, addToBlockHash, finishBlockHash};

}  // namespace

const BlockCodingTable* blockCodingTable(std::string&) {
  return &kTable;
}

}  // namespace vorlix
