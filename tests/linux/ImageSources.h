// SPDX-License-Identifier: Apache-2.0
//
// Volumes and images of them, made by the general tools, and a source read as a restore reads it.
#pragma once

#include <Vorlix/ImageSource.h>
#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "support/FileContent.h"

namespace vorlix::test {

/// What came out of a source. Bytes that are zeros or not in use are zeros here.
struct ReadImage {
  bool isOpen = false;
  bool hasEnded = false;
  ImageFacts facts;
  ImageFailure failure;
  std::string bytes;
  uint64_t dataSize = 0;
  uint64_t zerosSize = 0;
  uint64_t unusedSize = 0;
};

/// Reads on until the end or a failure, which have to come again. A gap or an overlap is an error.
inline void readRest(ImageSource& source, ReadImage& image, size_t bufferSize, uint64_t position = 0) {
  std::vector<uint8_t> buffer(bufferSize);
  for (;;) {
    const ImagePiece piece = source.next(buffer);
    if (piece.offset != position) throw std::runtime_error("a piece is not where the one before ended");
    position += piece.length;
    switch (piece.kind) {
      case ImagePiece::Kind::data:
        if (piece.length == 0 || piece.length > bufferSize) throw std::runtime_error("a piece of a wrong length");
        image.bytes.append(reinterpret_cast<const char*>(buffer.data()), piece.length);
        image.dataSize += piece.length;
        break;
      case ImagePiece::Kind::zeros:
      case ImagePiece::Kind::unused:
        if (piece.length == 0) throw std::runtime_error("an empty piece");
        image.bytes.append(piece.length, '\0');
        (piece.kind == ImagePiece::Kind::zeros ? image.zerosSize : image.unusedSize) += piece.length;
        break;
      case ImagePiece::Kind::end:
      case ImagePiece::Kind::failure:
        if (source.next(buffer).kind != piece.kind) throw std::runtime_error("the last piece does not stay");
        image.hasEnded = piece.kind == ImagePiece::Kind::end;
        image.failure = piece.failure;
        return;
    }
  }
}

inline ReadImage readImage(const std::string& path, size_t bufferSize = kLargestPiece,
                           const ImageSourceOptions& options = {}) {
  ReadImage image;
  const auto source = openImageSource(path, options, image.failure);
  image.isOpen = source != nullptr;
  if (source == nullptr) return image;
  image.facts = source->facts();
  readRest(*source, image, bufferSize);
  if (image.facts.fileSize && source->bytesRead() > *image.facts.fileSize) throw std::runtime_error("read too much");
  return image;
}

/// Reads what a command prints as standard input.
inline ReadImage readFromPipe(const std::string& command) {
  FILE* const pipe = popen((command + " 2>/dev/null").c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  dup2(fileno(pipe), STDIN_FILENO);
  const ReadImage image = readImage(kStandardInput);
  if (input >= 0) {
    dup2(input, STDIN_FILENO);
    close(input);
  } else {
    close(STDIN_FILENO);
  }
  pclose(pipe);
  return image;
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

/// A folder with an NTFS volume of 6 MiB in win.img: sparse, with a file of 1 MB. Made once.
class VolumeImages {
 public:
  static VolumeImages& shared() {
    static VolumeImages images;
    return images;
  }

  std::string at(const std::string& name) const { return (folder_.path() / name).string(); }
  const std::string& raw() const { return raw_; }

 private:
  VolumeImages() {
    const std::string image = at("win.img");
    run("truncate -s 6M '" + image + "' && mkntfs -q -F -Q -s 512 -p 2048 -H 255 -S 63 -L WIN '" + image +
        "' >/dev/null 2>&1");
    run("head -c 1000000 /dev/urandom >'" + at("content") + "'");
    run("ntfscp -f '" + image + "' '" + at("content") + "' content.bin >/dev/null 2>&1");
    run("cp --sparse=always '" + image + "' '" + at("sparse") + "' && mv '" + at("sparse") + "' '" + image + "'");
    raw_ = contentOf(image);
  }

  TemporaryFolder folder_;
  std::string raw_;
};

}  // namespace vorlix::test
