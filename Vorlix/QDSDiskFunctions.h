/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * The flat face of the library: partition tables of a disk and the hybrid MBR.
 *
 * These functions read the Master Boot Record (MBR) and the GUID Partition Table (GPT) of a disk, build the MBR that
 * should stand beside the GPT, and write it. The header compiles as C11 and as C++20; every function has C linkage.
 *
 * Conventions
 * - Results are 0 for success and -1 for failure unless said otherwise; the reason of a failure is only in the log.
 * - Records are owned by the caller and filled in place; nothing that a function returns has to be freed.
 * - Paths name a device node, a disk-image file, or slice N of either as `<whole>s<N>` (`/dev/disk2s3`,
 *   `/home/me/mac.imgs3`). They may have any length.
 * - The functions keep no state between calls but take no lock of their own: do not run two of them on one disk at
 *   the same time.
 *
 * Layout sources: the MBR slot layout is the classic one of the PC BIOS (UEFI Specification 2.10, table 5.1); the GPT
 * header and entry are those of UEFI Specification 2.10, sections 5.3.2 and 5.3.3.
 */
#ifndef VORLIX_QDSDISKFUNCTIONS_H
#define VORLIX_QDSDISKFUNCTIONS_H

#include <Vorlix/foundation/Export.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------- records */

/**
 * One decoded slot of an MBR. On disk a slot has 16 bytes and packs cylinder and sector into two of them; here each
 * value stands by itself.
 */
typedef struct MBRPartitionEntry {
  uint8_t flag;         /**< 0x80 marks the active (boot) partition, else 0x00. */
  uint8_t start_head;   /**< Head of the first sector. */
  uint8_t start_sector; /**< Sector of the first sector, 1 to 63 (six bits on disk). */
  uint16_t start_track; /**< Cylinder of the first sector, 0 to 1023 (ten bits on disk). */
  uint8_t type;         /**< Partition type; 0x00 is an empty slot, 0xEE the GPT protective entry. */
  uint8_t end_head;     /**< Head of the last sector. */
  uint8_t end_sector;   /**< Sector of the last sector. */
  uint16_t end_track;   /**< Cylinder of the last sector. */
  uint32_t lba;         /**< First sector of the partition. */
  uint32_t size;        /**< Number of sectors. */
} MBRPartitionEntry;

/** The whole of sector 0, decoded. */
typedef struct PartitionTable {
  int32_t reserved;           /**< Neither read nor written by the library. */
  uint8_t boot_code[446];     /**< Bytes 0 to 445 verbatim; 440 to 445 hold the disk signature, not interpreted. */
  MBRPartitionEntry parts[4]; /**< Slots 1 to 4. */
  uint16_t signature;         /**< 0xAA55 for a valid MBR (0x55, 0xAA on disk). */
} PartitionTable;

/**
 * A GPT header: the first 512 bytes of its sector in on-disk order, integers in the host's byte order. The CRCs are
 * not checked by the library and `size_of_entry` is not used: every entry is taken to have 128 bytes.
 */
typedef struct GPTHeader {
  uint64_t signature;           /**< "EFI PART" as a little-endian number: 0x5452415020494645. */
  uint32_t revision;            /**< 0x00010000 for version 1.0. */
  uint32_t header_size;         /**< Bytes of the header that are in use, usually 92. */
  uint32_t header_crc32;        /**< CRC-32 of the header. */
  uint32_t reserved;            /**< Zero. */
  uint64_t my_lba;              /**< LBA of this header. */
  uint64_t alternate_lba;       /**< LBA of the other header. */
  uint64_t first_usable_lba;    /**< First LBA a partition may use. */
  uint64_t last_usable_lba;     /**< Last LBA a partition may use. */
  uint8_t disk_guid[16];        /**< Disk GUID in its on-disk (mixed-endian) order. */
  uint64_t partition_entry_lba; /**< LBA of the first entry. */
  uint32_t number_of_entries;   /**< Number of entries, used ones and unused ones. */
  uint32_t size_of_entry;       /**< Bytes per entry, usually 128. */
  uint32_t entries_crc32;       /**< CRC-32 of the entries. */
  uint8_t remainder[420];       /**< The rest of the 512 bytes. */
} GPTHeader;

/** A GPT entry: its 128 on-disk bytes, then its type GUID as text. */
typedef struct GPTEntry {
  uint8_t type_guid[16];   /**< Type GUID in on-disk order; all zero is an unused entry. */
  uint8_t unique_guid[16]; /**< GUID of this partition in on-disk order. */
  uint64_t first_lba;      /**< First LBA. */
  uint64_t last_lba;       /**< Last LBA, inclusive. */
  uint64_t attributes;     /**< Attribute bits. */
  uint8_t name[72];        /**< 36 UTF-16LE code units, not interpreted. */
  char guid_text[40];      /**< `type_guid` as text by ConvertToGUID(), 36 characters and a NUL. */
} GPTEntry;

/** One row of #partition_maps. */
typedef struct PartitionTypeMap {
  uint32_t mbr_type; /**< MBR partition type in the low 8 bits. */
  char guid[40];     /**< GPT partition type, upper-case GUID text. */
} PartitionTypeMap;

/* -------------------------------------------------------------------------------------------------- exported data */

/** Set to 0 by update_mbr_and_partition(); nothing in the library reads it. */
VORLIX_EXPORT extern int32_t verbose_flag;

/**
 * How many rows of #partition_maps are looked at. It is 9, one less than the table has: the last row (Apple UFS) is
 * found only by a host that raises it to 10. Values above 10 count as 10.
 */
VORLIX_EXPORT extern int32_t number_of_partition_maps;

/** GPT partition types and the MBR types that stand for them in a hybrid MBR. */
VORLIX_EXPORT extern const PartitionTypeMap partition_maps[10];

/** Settings a host may fill with the paths of NTFS tools; zero at the start, neither read nor written here. @{ */
VORLIX_EXPORT extern char mkntfs[2048];
VORLIX_EXPORT extern char ntfs3gpath[2048];
VORLIX_EXPORT extern char ntfscatpath[2048];
VORLIX_EXPORT extern char ntfsclonepath[1024];
VORLIX_EXPORT extern char ntfscppath[1024];
VORLIX_EXPORT extern char ntfsinfopath[1024];
VORLIX_EXPORT extern char ntfsresizepath[1024];
/** @} */

/* ------------------------------------------------------------------------------------------------ log and helpers */

/**
 * Appends a message to the log file "/tmp/quandrel.log", which is opened anew on every call and created with the
 * process's default permissions. A symbolic link in its place is not followed.
 *
 * @param message  NUL-terminated text; at most its first 1024 bytes are written. It is written exactly as it stands,
 *                 without a line feed, a time stamp or a prefix.
 * @return 0. A log that cannot be opened costs the message: "error opening log file" goes to standard error instead.
 */
VORLIX_EXPORT int logLine(const char* message);

/**
 * Cylinder, head and sector of a sector number in the geometry of 255 heads and 63 sectors.
 *
 * From 16450560 (cylinder 1024) on the cylinder is 1023, while head and sector stay what they are. A negative number
 * yields values at or below zero, stored as unsigned.
 *
 * @param chs  three values, written in the order cylinder, head, sector.
 * @param lba  sector number.
 */
VORLIX_EXPORT void calculate_chs(uint32_t* chs, int32_t lba);

/**
 * Text form of a GUID.
 *
 * @param guid  16 bytes in on-disk (mixed-endian) order.
 * @param text  receives 37 bytes: upper-case groups 8-4-4-4-12 and a NUL.
 * @return 36, the number of characters.
 */
VORLIX_EXPORT int ConvertToGUID(const uint8_t* guid, char* text);

/* ------------------------------------------------------------------------------------------------- reading tables */

/**
 * Logical block size of a disk.
 *
 * @param device  device name or path. For a disk-image file the size is where its GPT header stands (512 or 4096),
 *                and 512 when there is none.
 * @return bytes per block; 0 when the device is unknown, which is logged.
 */
VORLIX_EXPORT uint64_t getblocksize(const char* device);

/**
 * Reads sector 0.
 *
 * @param stream  open for reading and positioned at byte 0; it is left after the 512 bytes.
 * @param table   filled. `signature` is preset to 0xAA55; a field that the stream ends before keeps its old value.
 * @param active  receives the number (1 to 4) of the last slot whose flag is exactly 0x80; untouched if there is none.
 * @return 0.
 */
VORLIX_EXPORT int read_bios_partition_table(FILE* stream, PartitionTable* table, uint32_t* active);

/**
 * Reads a GPT header without judging it.
 *
 * @param stream  open for reading and positioned at the header; it is left after the 512 bytes.
 * @param header  filled. A field that the stream ends before keeps its old value.
 * @return 0.
 */
VORLIX_EXPORT int read_gpt_header(FILE* stream, GPTHeader* header);

/**
 * Reads all GPT entries and builds from the first four the MBR that the disk should carry. Slot k follows entry k, by
 * position: an unused entry leaves its slot empty. The EFI System Partition becomes the protective entry, type 0xEE
 * from LBA 1 to its end; other types come from #partition_maps, 0 when unknown.
 *
 * @param stream   open for reading and positioned at the first entry.
 * @param table    the new MBR; its `boot_code` is not touched.
 * @param entries  room for `header->number_of_entries` records. Fields of entries that the stream ends before keep
 *                 their values, so a caller clears them first.
 * @param header   the header read before.
 * @param active   slot that gets the active flag, 1 to 4; any other number marks none.
 * @param guard    1 builds a standard guard (protective) MBR: only slot 1, over the whole disk.
 */
VORLIX_EXPORT void read_gpt(FILE* stream, PartitionTable* table, GPTEntry* entries, const GPTHeader* header,
                            uint32_t active, int guard);

/**
 * Prints the used ones of the first 128 entries on standard output. The column headed "size" carries the last LBA.
 *
 * @param entries  exactly 128 records, whatever the header's count is.
 * @return 0.
 */
VORLIX_EXPORT int print_gpt(const GPTEntry* entries);

/** Writes the four slots to the log as a table. */
VORLIX_EXPORT void print_bios_partition_table(const PartitionTable* table);

/**
 * Compares four slots with four others and logs what differs. It stops after the first slot that has a difference.
 *
 * @param fresh  the newly built slots, logged first.
 * @param disk   the slots read from the disk.
 * @return 0 if all are equal, -1 otherwise.
 */
VORLIX_EXPORT int ComparePartitionTables(const MBRPartitionEntry* fresh, const MBRPartitionEntry* disk);

/**
 * Tells a guard MBR from a hybrid one by the type of slot 2 alone.
 *
 * @param device  a readable device. One that cannot be opened has nothing in slot 2 and counts as guard; check first.
 * @return 1 for a guard MBR, 0 for a hybrid one.
 * @note The stream stays open: each call costs the process one descriptor.
 */
VORLIX_EXPORT int has_guard_mbr(const char* device);

/* ------------------------------------------------------------------------------------------------- writing tables */

/**
 * Brings the MBR of a GPT disk in line with its GPT and patches the boot sector of its Windows partition.
 *
 * Sector 0 is written only when its slots differ from those that the GPT asks for. The boot sector of the partition is
 * patched whether or not sector 0 was written, if `partition` is 1 to 4 and `guard` is 0.
 *
 * @param device     the whole disk.
 * @param boot_code  file with the MBR boot code; null leaves sector 0 alone. **A path that cannot be opened ends the
 *                   process with status -1**, so a host checks it beforehand.
 * @param partition  1 to 4 names the slot to mark active and to patch, 0 none. With an `id` it must not be above 4.
 * @param id         MBR type for that slot, 1 to 255; 0 leaves the type that the GPT asks for.
 * @param volume     device of the partition whose boot sector is patched.
 * @param guard      1 builds a guard MBR; any value but 0 leaves type and boot sector alone.
 * @param start      sector number to write into the boot sector, meant to be the partition's first LBA.
 * @return 0, or -1 for wrong arguments, a device that cannot be opened, a disk without a GPT, or a boot sector that
 *         could not be patched. An MBR that was refused or could not be written does not show in the result.
 */
VORLIX_EXPORT int update_mbr_and_partition(const char* device, const char* boot_code, uint32_t partition, uint32_t id,
                                           const char* volume, int guard, uint32_t start);

/**
 * Writes sector 0 of a disk (not its GPT, despite the name): boot code from a file, the slots and the signature from
 * a table. Nothing is written unless the signature is 0xAA55 and slot 1 is of type 0xEE.
 *
 * The device is opened with an exclusive lock, or with a shared one where that cannot be had; locks never wait.
 *
 * @param non_interactive  0 asks on the terminal before writing and before going on without the exclusive lock.
 * @param device           the whole disk.
 * @param boot_code        file of which up to 446 bytes are taken (a shorter one leaves zeros); null aborts. **A path
 *                         that cannot be opened ends the process with status -1.**
 * @param table            the table to write; its `boot_code` is not used.
 * @note When the call is aborted for a missing boot-code path or a wrong signature the device stays open.
 */
VORLIX_EXPORT void write_new_gpt(int non_interactive, const char* device, const char* boot_code,
                                 const PartitionTable* table);

/**
 * Patches the first sector of a FAT or NTFS volume: the hidden-sectors field at byte 28 gets the start sector, the
 * eight bytes at 72 (the serial number of an NTFS volume) get random values. The file system is not examined; on FAT32
 * bytes 72 to 79 lie in the volume label.
 *
 * @param non_interactive  0 asks on the terminal before going on without an exclusive lock.
 * @param unused1          pass 0.
 * @param start            start sector, written little-endian.
 * @param unused2          pass 0.
 * @param volume           device of the volume.
 * @return 0, or -1 when the device could not be opened or written. Failed writes are also told on standard error.
 */
VORLIX_EXPORT int update_start_sector(int non_interactive, uint64_t unused1, uint32_t start, uint64_t unused2,
                                      const char* volume);

/** Tells without waiting whether a byte (or the end of file) can be read from standard input. @return 1 or 0. */
VORLIX_EXPORT int kbhit(void);

#ifdef __cplusplus
}
#endif

#endif
