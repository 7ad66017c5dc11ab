/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * The flat face of the library: partition tables of a disk and the hybrid MBR, the identity of devices, mounting, the
 * boot configuration store and boot records.
 *
 * These functions read the Master Boot Record (MBR) and the GUID Partition Table (GPT) of a disk, build the MBR that
 * should stand beside the GPT, and write it; they tell what a device is, mount and unmount it, point the Windows boot
 * manager at a partition and carry boot code from one volume to another. The header compiles as C11 and as C++20;
 * every function has C linkage.
 *
 * Conventions
 * - Results are 0 for success and -1 for failure unless said otherwise; the reason of a failure is only in the log.
 * - Records are owned by the caller and filled in place; nothing that a function returns has to be freed.
 * - Paths name a device node, a disk-image file, or slice N of either as `<whole>s<N>` (`/dev/disk2s3`,
 *   `/home/me/mac.imgs3`). They may have any length.
 * - Names of devices are BSD names, with or without "/dev/" ("disk0s3", "/dev/disk0"); a disk-image file has its path.
 *   The EFI System Partition of a disk is slice 1, `<disk>s1`.
 * - Null for a name or a text counts as an empty one: a device, a volume or a file that nothing has, a message without
 *   a character. Functions of the sections on identity, mounting, boot configuration and boot records do not write
 *   through a null result pointer; elsewhere streams, records and results must not be null.
 * - No function throws. Where memory runs out, or a replaced part of the platform throws, a function logs its name and
 *   the reason and answers as for a device that cannot be used: -1, where it has no such result 0 or null. What it had
 *   opened is closed; what it had written or mounted stays so.
 * - The functions keep no state between calls but take no lock of their own: do not run two of them on one disk at
 *   the same time, and no two that mount or unmount in one process.
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
 * process's default permissions. A symbolic link in its place is not followed, and a file with a second name (a hard
 * link) is not written.
 *
 * @param message  NUL-terminated text; at most its first 1024 bytes are written. It is written exactly as it stands,
 *                 without a line feed, a time stamp or a prefix. Null is an empty message.
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
 * @return 1 for a guard MBR, 0 for a hybrid one; 1 also where an exception ended it.
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
 * @return 0, or -1 when the device could not be opened or written. Failed writes are also told on standard error, one
 *         that the device's end cut short as ENOSPC.
 */
VORLIX_EXPORT int update_start_sector(int non_interactive, uint64_t unused1, uint32_t start, uint64_t unused2,
                                      const char* volume);

/** Tells without waiting whether a byte (or the end of file) can be read from standard input. @return 1 or 0. */
VORLIX_EXPORT int kbhit(void);

/* ----------------------------------------------------------------------------------------------- device identity */

/**
 * Number of a partition on its disk, from the I/O registry's plane "IODeviceTree", else from "IOService".
 *
 * @param name  the partition; upper and lower case are the same.
 * @return its "Partition ID", 0 when there is none.
 */
VORLIX_EXPORT int32_t partitionForDeviceIdentifier(const char* name);

/**
 * The same in one plane.
 *
 * @param plane  "IODeviceTree" or "IOService".
 * @return the number (it is read as 16 bits with a sign; 0 where it is larger), 0 when not found.
 */
VORLIX_EXPORT int32_t partitionForDeviceIdentifierOnGivenPlane(const char* name, const char* plane);

/**
 * Kind of medium that a device lies on.
 *
 * The nine registry entries above the device are looked at, and the farthest one that tells wins.
 *
 * @param text  1024 bytes; receives the "Medium Type" as UTF-8, such as "Solid State" or "Rotational", cut to 1023
 *              bytes. Untouched when nothing was found.
 * @return 0, or -1 when nothing was found.
 */
VORLIX_EXPORT int32_t media_type(const char* name, char* text);

/**
 * Identifiers and place of a partition, from the I/O registry. The disk's identifier is read from its GPT where the
 * registry has none.
 *
 * @param name            the partition.
 * @param disk_guid       16 bytes, the disk's GUID in on-disk (mixed-endian) order. Untouched when the disk has no
 *                        readable GPT. Null is a failure where the GPT has to be asked.
 * @param partition_guid  16 bytes, the partition's GUID in the same order.
 * @param offset          byte offset of the partition on its disk.
 * @return 0, also for a name that no device has: all results are then untouched, so clear them first. -1 when the
 *         partition has no identifier or its whole disk is not known.
 */
VORLIX_EXPORT int32_t lookup_disk_info(const char* name, uint8_t* disk_guid, uint8_t* partition_guid, int64_t* offset);

/**
 * Raw form of a GUID: 00112233-4455-6677-8899-AABBCCDDEEFF becomes
 * 33 22 11 00 55 44 77 66 88 99 AA BB CC DD EE FF.
 *
 * @param text   hexadecimal digits of either case. **Its dashes are removed in place.** What is missing or no digit
 *               counts as 0.
 * @param bytes  receives 16 bytes in on-disk (mixed-endian) order.
 * @return 0.
 */
VORLIX_EXPORT int32_t convert_uuid_string_to_bytes(char* text, uint8_t* bytes);

/**
 * Name of the whole disk that a slice lies on.
 *
 * @param disk        1024 bytes; receives the name, cut to 1023 bytes.
 * @param name        the slice, or the whole disk itself.
 * @param dev_prefix  not 0 asks for "/dev/" before the name.
 * @return 0, or -1 when the disk has no whole disk. A name that no device has is told on standard output, leaves the
 *         buffer untouched and is 0 as well.
 */
VORLIX_EXPORT int32_t disk_from_slice(char* disk, const char* name, int32_t dev_prefix);

/**
 * GUID of a disk as its primary GPT header tells it.
 *
 * @param device  the whole disk.
 * @param guid    16 bytes in on-disk (mixed-endian) order. Untouched when there is no GPT header in LBA 1.
 * @return what closing the device gave: 0, or -1, also when it could not be opened.
 */
VORLIX_EXPORT int32_t disk_guid(const char* device, uint8_t* guid);

/** Removes every occurrence of a character from a text, in place. */
VORLIX_EXPORT void remove_all_chars(char* text, char character);

/* ------------------------------------------------------------------------------------------------------- mounting */

/**
 * Where a device's volume is mounted.
 *
 * @return its path, which stays valid until the thread's next call of mounted_path() or mount_efi(); null when it is
 *         not mounted or not known.
 */
VORLIX_EXPORT const char* mounted_path(const char* name);

/**
 * Mounts a device's volume at a place of the system's choice. The call drives the thread's run loop in the default mode
 * until the system has answered, without a time limit.
 *
 * @param read_write  not 0 asks for a volume that can be written and that desktops do not show; 0 leaves both to the
 *                    system.
 * @return 0, also when the mount was refused or there is no such device: ask mounted_path() for the outcome.
 */
VORLIX_EXPORT int32_t mount_disk(const char* name, int32_t read_write);

/**
 * Mounts the EFI System Partition of a disk.
 *
 * @param disk  the whole disk.
 * @return its mount point as from mounted_path(), or null.
 */
VORLIX_EXPORT const char* mount_efi(const char* disk);

/**
 * Unmounts a device's volume. The call drives the thread's run loop as mount_disk() does.
 *
 * @return 0; -1 when there is no such device; -3 when the system refused, be it that the volume is in use or that it is
 *         not mounted; -2 when it refused with a code above 0, which is none of Disk Arbitration's own.
 */
VORLIX_EXPORT int32_t unmount_disk(const char* name);

/**
 * Unmounts the EFI System Partition of a disk after a pause of one second.
 *
 * @param disk  the whole disk.
 * @return 0, whatever became of it; -1 only for null.
 */
VORLIX_EXPORT int32_t unmount_efi(const char* disk);

/* --------------------------------------------------------------------------------------------- boot configuration */

/**
 * Puts a boot configuration store on the EFI System Partition of a disk and points it at a partition.
 *
 * The slice is mounted, the template copied to `EFI/Microsoft/Boot/BCD` in place of what is there, the GUIDs of the
 * partition and of its disk are written over the mode's fixed offsets, and the slice is unmounted. The template is
 * neither parsed nor checked; one that ends before an offset is extended, with zeros in the gap. A partition that is
 * not known, and a disk without a GUID, leave 16 zero bytes in the slots.
 *
 * @param source     path of the template, a file other than the one it replaces.
 * @param disk       the whole disk whose slice 1 is meant.
 * @param partition  the Windows partition.
 * @param mode       1 for a template of MDT, 2 of SCCM, any other number for the standard EFI boot.
 * @return 0, or -1. After a failure the slice stays mounted; when the partition's identifiers were not found the copied
 *         store stays open as well, its end not yet written. A destination that cannot be written is told on standard
 *         error and standard output.
 * @note A destination path of 255 bytes or more ends the process (abort) with a message on standard error.
 */
VORLIX_EXPORT int32_t update_bcd(const char* source, const char* disk, const char* partition, int32_t mode);

/* --------------------------------------------------------------------------------------------------- boot records */

/** Whether a file or a folder exists (a symbolic link is followed). @return 1 or 0. */
VORLIX_EXPORT int32_t file_exist(const char* path);

/**
 * Saves the boot code of a volume: bytes 84 to 8191, without the volume's own parameter block before them.
 *
 * @param device  the volume, opened for reading and writing.
 * @param file    receives exactly 8108 bytes; must not exist yet.
 * @return 0; -1 the file exists or the device cannot be opened; -2 it cannot be positioned; -3 it is shorter; -4 the
 *         file cannot be opened; -5 it cannot be written.
 * @note What was open when the call failed with -2, -3 or -5 stays open.
 */
VORLIX_EXPORT int32_t write_vbr_to_file(const char* device, const char* file);

/**
 * Saves the boot code of a disk: bytes 0 to 445 of sector 0, without slots and signature. The disk is opened with a
 * shared lock. **A disk that cannot be opened ends the process with status -1**, so a host checks it beforehand.
 *
 * @param device  the whole disk.
 * @param file    receives exactly 446 bytes; must not exist yet.
 * @return 0, or -1, also when an argument is null.
 * @note What was open when reading the disk or writing the file failed stays open.
 */
VORLIX_EXPORT int32_t write_mbr_to_file(const char* device, const char* file);

/**
 * Puts saved boot code on a volume, at bytes 84 to 8191; the volume's parameter block before them stays. The volume is
 * unmounted first, in any case. It may have another size than the one that the code was saved from.
 *
 * @param file    a file of write_vbr_to_file(); bytes after the first 8108 are not looked at.
 * @param device  the volume.
 * @return 0; -1 there is no such file; -2 it cannot be opened; -3 it is shorter; -5 the device cannot be opened; -6 it
 *         cannot be positioned; -7 it cannot be written or brought to the medium.
 * @note What was open when the call failed with -3, -6 or -7 stays open.
 */
VORLIX_EXPORT int32_t restore_vbr_to_device(const char* file, const char* device);

/**
 * Gives a saved file its owner and group and then the mode 0644.
 *
 * @param owner  user ID.
 * @param group  group ID.
 * @return 0, or the result of the call that failed (-1 with `errno` set); after the first no mode is changed.
 */
VORLIX_EXPORT int32_t change_ownership(const char* path, uint32_t owner, uint32_t group);

#ifdef __cplusplus
}
#endif

#endif
