// SPDX-License-Identifier: Apache-2.0
//
// An EFI program for tests: it does with a boot configuration store what a boot manager has to do first. It reads
// \EFI\Microsoft\Boot\BCD from the volume that it was started from, finds the device elements that name a partition,
// looks for each among the firmware's block devices, and prints on the first serial port what it found. Then it ends
// the emulator.
//
// It knows nothing of where identifiers stand in prepared stores: it goes through the hive's cells. Formats: the UEFI
// specification 2.10 (tables, protocols, device paths), the Windows registry file format specification (Suhanov), and
// the layout of device elements as in hive.py.

typedef unsigned char Byte;
typedef unsigned short Word;
typedef unsigned int Dword;
typedef unsigned long long Qword;
typedef Qword Status;
typedef void* Handle;

typedef struct {
  Dword a;
  Word b, c;
  Byte d[8];
} Guid;

typedef struct {
  Byte header[24];
  void* before[5];  // task priorities, pages, memory map
  Status (*allocatePool)(Dword type, Qword size, void** buffer);
  void* untilHandle[10];  // freePool to the protocols' installation and removal
  Status (*handleProtocol)(Handle handle, const Guid* protocol, void** interface);
  void* untilLocate[19];
  Status (*locateHandleBuffer)(Dword type, const Guid* protocol, void* key, Qword* count, Handle** handles);
} BootServices;

typedef struct {
  Byte header[24];
  Word* vendor;
  Dword revision;
  void* consoles[6];
  void* runtimeServices;
  BootServices* bootServices;
} SystemTable;

typedef struct {
  Dword revision;
  Handle parent;
  SystemTable* table;
  Handle device;
} LoadedImage;

typedef struct File {
  Qword revision;
  Status (*open)(struct File* self, struct File** opened, const Word* name, Qword mode, Qword attributes);
  Status (*close)(struct File* self);
  Status (*remove)(struct File* self);
  Status (*read)(struct File* self, Qword* size, void* buffer);
} File;

typedef struct FileSystem {
  Qword revision;
  Status (*openVolume)(struct FileSystem* self, File** root);
} FileSystem;

typedef struct {
  Dword mediaId;
  Byte flags[5];  // removable, present, logical partition, read-only, write caching
  Dword blockSize;
  Dword alignment;
  Qword lastBlock;
} Media;

typedef struct BlockDevice {
  Qword revision;
  Media* media;
  Status (*reset)(struct BlockDevice* self, Byte extended);
  Status (*read)(struct BlockDevice* self, Dword mediaId, Qword block, Qword size, void* buffer);
} BlockDevice;

static const Guid kLoadedImage = {0x5B1B31A1, 0x9562, 0x11D2, {0x8E, 0x3F, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
static const Guid kFileSystem = {0x964E5B22, 0x6459, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
static const Guid kBlockDevice = {0x964E5B21, 0x6459, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
static const Guid kDevicePath = {0x09576E91, 0x6D3F, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};

enum {
  kLoaderData = 2,
  kByProtocol = 2,
  kReadMode = 1,
  kLargestStore = 1 << 20,
  kBinHeader = 32,
  kPage = 4096,
  kElement = 88,  // bytes of a device element that names a partition
  kLargestBlock = 4096
};

static BootServices* services;

static void sendByte(Byte byte) {
  Byte state;
  do {
    __asm__ volatile("inb %w1, %b0" : "=a"(state) : "Nd"((Word)0x3FD));
  } while ((state & 0x20) == 0);
  __asm__ volatile("outb %b0, %w1" : : "a"(byte), "Nd"((Word)0x3F8));
}

static void print(const char* text) {
  for (; *text != 0; ++text) sendByte((Byte)*text);
}

static void printHex(Qword number, int digits) {
  while (digits-- > 0) sendByte((Byte) "0123456789ABCDEF"[number >> (4 * digits) & 15]);
}

static void printDecimal(Qword number) {
  if (number >= 10) printDecimal(number / 10);
  sendByte((Byte)('0' + number % 10));
}

static Dword dwordAt(const Byte* at) {
  return at[0] | at[1] << 8 | at[2] << 16 | (Dword)at[3] << 24;
}

static Qword qwordAt(const Byte* at) {
  return dwordAt(at) | (Qword)dwordAt(at + 4) << 32;
}

static void printGuid(const Byte* guid) {
  printHex(dwordAt(guid), 8);
  sendByte('-');
  printHex(guid[4] | guid[5] << 8, 4);
  sendByte('-');
  printHex(guid[6] | guid[7] << 8, 4);
  for (int i = 8; i < 16; ++i) {
    if (i == 8 || i == 10) sendByte('-');
    printHex(guid[i], 2);
  }
}

static int areEqual(const Byte* one, const Byte* other, Qword count) {
  for (Qword i = 0; i < count; ++i) {
    if (one[i] != other[i]) return 0;
  }
  return 1;
}

static void end(void) {
  print("end\n");
  __asm__ volatile("outb %b0, %w1" : : "a"((Byte)0), "Nd"((Word)0xF4));
  for (;;) __asm__ volatile("hlt");
}

static void fail(const char* what) {
  print("failed: ");
  print(what);
  print("\n");
  end();
}

static void* interfaceOf(Handle handle, const Guid* protocol) {
  void* found = 0;
  return services->handleProtocol(handle, protocol, &found) == 0 ? found : 0;
}

// Device paths: nodes of type, subtype and length; type 0x7F ends.
static Word lengthOf(const Byte* node) {
  return (Word)(node[2] | node[3] << 8);
}

// The last node, if it is that of a GPT partition. Gives the number of bytes before it.
static const Byte* partitionNode(const Byte* path, Qword* before) {
  const Byte* last = 0;
  for (const Byte* node = path; node[0] != 0x7F; node += lengthOf(node)) last = node;
  if (last == 0 || last[0] != 4 || last[1] != 1 || last[41] != 2) return 0;
  *before = (Qword)(last - path);
  return last;
}

// Whether the disk whose path are the first `count` bytes of `path` has the GUID in its GPT.
static int isDisk(Handle* handles, Qword count, const Byte* path, Qword length, const Byte* guid) {
  static Byte block[kLargestBlock];
  for (Qword i = 0; i < count; ++i) {
    const Byte* other = interfaceOf(handles[i], &kDevicePath);
    BlockDevice* device = interfaceOf(handles[i], &kBlockDevice);
    if (other == 0 || device == 0 || !areEqual(path, other, length) || other[length] != 0x7F) continue;
    const Media* media = device->media;
    if (media->blockSize > kLargestBlock) continue;
    if (device->read(device, media->mediaId, 1, media->blockSize, block) != 0) continue;
    return areEqual(block, (const Byte*)"EFI PART", 8) && areEqual(block + 56, guid, 16);
  }
  return 0;
}

static void lookFor(const Byte* partition, const Byte* disk) {
  Qword count = 0;
  Handle* handles = 0;
  if (services->locateHandleBuffer(kByProtocol, &kBlockDevice, 0, &count, &handles) != 0) fail("no block devices");
  for (Qword i = 0; i < count; ++i) {
    Qword before = 0;
    const Byte* path = interfaceOf(handles[i], &kDevicePath);
    const Byte* node = path != 0 ? partitionNode(path, &before) : 0;
    if (node == 0 || !areEqual(node + 24, partition, 16)) continue;
    if (!isDisk(handles, count, path, before, disk)) {
      print("on another disk\n");
      return;
    }
    print("found, ");
    printDecimal(((BlockDevice*)interfaceOf(handles[i], &kBlockDevice))->media->lastBlock + 1);
    print(" blocks from ");
    printDecimal(qwordAt(node + 8));
    print("\n");
    return;
  }
  print("not found\n");
}

// The store's cells: a size, negative in use, then the content. A value "Element" says where its data is.
static void readStore(const Byte* store, Qword size) {
  if (size < 2 * kPage || !areEqual(store, (const Byte*)"regf", 4)) fail("no hive");
  for (Qword bin = kPage; bin + kPage <= size && areEqual(store + bin, (const Byte*)"hbin", 4);) {
    const Qword binSize = dwordAt(store + bin + 8);
    if (binSize == 0 || binSize % kPage != 0 || binSize > size - bin) fail("a damaged bin");
    for (Qword cell = bin + kBinHeader; cell + 32 <= bin + binSize;) {
      const int signedSize = (int)dwordAt(store + cell);
      const Qword cellSize = (Qword)(signedSize < 0 ? -(long long)signedSize : signedSize);
      if (cellSize < 8 || cellSize > bin + binSize - cell) fail("a damaged cell");
      const Byte* value = store + cell + 4;
      if (signedSize < 0 && areEqual(value, (const Byte*)"vk\7\0", 4) &&
          areEqual(value + 20, (const Byte*)"Element", 7) && dwordAt(value + 4) == kElement) {
        const Qword data = kPage + (Qword)dwordAt(value + 8) + 4;
        if (data + kElement > size) fail("data outside of the store");
        const Byte* element = store + data;
        const int namesPartition = dwordAt(element + 16) == 6 && dwordAt(element + 24) == 0x48;
        const int isGpt = dwordAt(element + 52) == 0;
        if (namesPartition && isGpt) {
          print("store names partition ");
          printGuid(element + 32);
          print(" of disk ");
          printGuid(element + 56);
          print(": ");
          lookFor(element + 32, element + 56);
        }
      }
      cell += cellSize;
    }
    bin += binSize;
  }
}

Status efiMain(Handle image, SystemTable* table) {
  services = table->bootServices;
  print("\nstore reader\n");
  const LoadedImage* self = interfaceOf(image, &kLoadedImage);
  FileSystem* volume = self != 0 ? interfaceOf(self->device, &kFileSystem) : 0;
  File* root = 0;
  if (volume == 0 || volume->openVolume(volume, &root) != 0) fail("no volume");
  static const Word kName[] = L"\\EFI\\Microsoft\\Boot\\BCD";
  File* file = 0;
  if (root->open(root, &file, kName, kReadMode, 0) != 0) fail("no store");
  void* store = 0;
  Qword size = kLargestStore;
  if (services->allocatePool(kLoaderData, size, &store) != 0) fail("no memory");
  if (file->read(file, &size, store) != 0) fail("the store cannot be read");
  readStore(store, size);
  end();
  return 0;
}
