/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * The flat functions of the library: partition tables and the hybrid MBR of a disk, the identity of devices, mounting,
 * the boot configuration store, and boot records.
 *
 * These functions read the Master Boot Record (MBR) and the GUID Partition Table (GPT) of a disk, build the MBR that
 * belongs to the GPT, and write it. They identify devices, mount and unmount them, point the Windows boot manager at a
 * partition, and copy boot code from one volume to another. The header compiles as C11 and as C++20; every function has
 * C linkage.
 *
 * Conventions
 * - Results: unless its description says otherwise, a function returns 0 for success and -1 for failure. Only the log
 *   has the reason of a failure.
 * - Ownership: the caller owns the records, which the functions fill in place. Nothing that a function returns has to
 *   be freed.
 * - Paths: a path names a device node, a disk-image file, or slice N of either as `<whole>s<N>` (`/dev/disk2s3`,
 *   `/home/me/mac.imgs3`). Paths may have any length.
 * - Device names: a device is named by its BSD name, with or without "/dev/" ("disk0s3", "/dev/disk0"), a disk-image
 *   file by its path. The EFI System Partition of a disk is slice 1, `<disk>s1`.
 * - Null pointers: a null name or string counts as an empty one, that is, as a device, volume or file that does not
 *   exist, or as an empty message. The functions for identity, mounting, boot configuration and boot records do not
 *   write through a null result pointer. In the other sections, streams, records and results must not be null.
 * - Exceptions: no function throws. If memory runs out or a replaced part of the platform throws, the function logs its
 *   name and the reason. It then returns what it returns for a device that cannot be used: -1, or 0 or null if it has
 *   no such result. Everything that it opened is closed; what it has written or mounted stays.
 * - Threads: the functions keep no state between calls, but they take no locks of their own. Do not run two of them on
 *   one disk at the same time, or two that mount or unmount in one process.
 *
 * Layout sources: the MBR slot is that of the PC BIOS (UEFI Specification 2.10, table 5.1). The GPT header and entry
 * are those of UEFI Specification 2.10, sections 5.3.2 and 5.3.3.
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
 * One decoded slot of an MBR. On disk a slot has 16 bytes and packs cylinder and sector into two of them; this record
 * has a field for each value.
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

/** Sector 0 of a disk, decoded. */
typedef struct PartitionTable {
  int32_t reserved;           /**< Neither read nor written by the library. */
  uint8_t boot_code[446];     /**< Bytes 0 to 445, unchanged. The disk signature (440 to 445) is not interpreted. */
  MBRPartitionEntry parts[4]; /**< Slots 1 to 4. */
  uint16_t signature;         /**< 0xAA55 for a valid MBR (0x55, 0xAA on disk). */
} PartitionTable;

/**
 * A GPT header: the first 512 bytes of its block in on-disk order, with integers in the host's byte order. The
 * functions of this header neither check the CRCs nor use `size_of_entry`: they read every entry as 128 bytes.
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

/** A GPT entry: its 128 on-disk bytes, followed by its type GUID as text. */
typedef struct GPTEntry {
  uint8_t type_guid[16];   /**< Type GUID in on-disk order; all zero is an unused entry. */
  uint8_t unique_guid[16]; /**< GUID of this partition in on-disk order. */
  uint64_t first_lba;      /**< First LBA. */
  uint64_t last_lba;       /**< Last LBA, inclusive. */
  uint64_t attributes;     /**< Attribute bits. */
  uint8_t name[72];        /**< 36 UTF-16LE code units, not interpreted. */
  char guid_text[40];      /**< `type_guid` as text from ConvertToGUID(): 36 characters and a NUL. */
} GPTEntry;

/** One row of #partition_maps. */
typedef struct PartitionTypeMap {
  uint32_t mbr_type; /**< MBR partition type in the low 8 bits. */
  char guid[40];     /**< GPT partition type as GUID text in upper case. */
} PartitionTypeMap;

/* -------------------------------------------------------------------------------------------------- exported data */

/** A flag that update_mbr_and_partition() sets to 0. The library never reads it. */
VORLIX_EXPORT extern int32_t verbose_flag;

/**
 * How many rows of #partition_maps are used. The value is 9, one less than the table has: only a host that sets it to
 * 10 finds the last row (Apple UFS). Values above 10 count as 10, negative values as 0.
 */
VORLIX_EXPORT extern int32_t number_of_partition_maps;

/** GPT partition types and the MBR types that represent them in a hybrid MBR. */
VORLIX_EXPORT extern const PartitionTypeMap partition_maps[10];

/** Buffers in which a host may keep the paths of NTFS tools. Initially zero; the library neither reads nor writes them.
 * @{ */
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
 * Appends a message to the log file "/tmp/quandrel.log". Every call opens the file again and creates it, if necessary,
 * with the process's default permissions. A symbolic link in its place is not followed, and a file with a second name
 * (a hard link) is not written.
 *
 * @param message  NUL-terminated text, of which at most the first 1024 bytes are written. It is written unchanged,
 *                 without a line feed, a time stamp or a prefix. Null is an empty message.
 * @return 0. If the log cannot be opened, the message is lost and "error opening log file" is written to standard
 *         error.
 */
VORLIX_EXPORT int logLine(const char* message);

/**
 * Computes the cylinder, head and sector of a sector number in the geometry of 255 heads and 63 sectors per track.
 *
 * From sector number 16450560 (cylinder 1024) on, the cylinder is 1023; head and sector are not limited. A negative
 * number yields a cylinder and a head at or below zero and a sector at or below 1, stored as unsigned values.
 *
 * @param chs  receives three values: cylinder, head, sector.
 * @param lba  sector number.
 */
VORLIX_EXPORT void calculate_chs(uint32_t* chs, int32_t lba);

/**
 * Converts a GUID to text.
 *
 * @param guid  16 bytes in on-disk (mixed-endian) order.
 * @param text  receives 37 bytes: hexadecimal digits in upper case, grouped 8-4-4-4-12, and a NUL.
 * @return 36, the number of characters.
 */
VORLIX_EXPORT int ConvertToGUID(const uint8_t* guid, char* text);

/* ------------------------------------------------------------------------------------------------- reading tables */

/**
 * Returns the logical block size of a disk.
 *
 * @param device  device name or path. For a disk-image file the block size is the offset of its GPT header (512 or
 *                4096), or 512 if it has no GPT.
 * @return bytes per block; 0 if the device is unknown, which is logged.
 */
VORLIX_EXPORT uint64_t getblocksize(const char* device);

/**
 * Reads sector 0.
 *
 * @param stream  a stream that is open for reading and positioned at byte 0. Afterwards it is positioned after the 512
 *                bytes.
 * @param table   receives the table. `signature` is set to 0xAA55 first. If the stream ends before a field or inside
 *                it, the field keeps its value.
 * @param active  receives the number (1 to 4) of the last slot whose flag is exactly 0x80; unchanged if there is none.
 * @return 0.
 */
VORLIX_EXPORT int read_bios_partition_table(FILE* stream, PartitionTable* table, uint32_t* active);

/**
 * Reads a GPT header without checking it.
 *
 * @param stream  a stream that is open for reading and positioned at the header. Afterwards it is positioned after the
 *                512 bytes.
 * @param header  receives the header. If the stream ends before a field or inside it, the field keeps its value.
 * @return 0.
 */
VORLIX_EXPORT int read_gpt_header(FILE* stream, GPTHeader* header);

/**
 * Reads all GPT entries and builds the MBR that the disk should have from the first four. Slot k corresponds to entry
 * k, so an unused entry has an empty slot. The EFI System Partition becomes the protective entry: type 0xEE, from LBA 1
 * to the end of that partition. The MBR types come from #partition_maps; an unknown partition type becomes 0.
 *
 * @param stream   a stream that is open for reading and positioned at the first entry.
 * @param table    receives the new MBR; its `boot_code` is unchanged.
 * @param entries  an array of `header->number_of_entries` records. If the stream ends before a field or inside it, the
 *                 field keeps its value, so clear the records first.
 * @param header   the header that was read before.
 * @param active   number of the slot that gets the active flag, 1 to 4; any other number marks none.
 * @param guard    1 builds a standard guard (protective) MBR: only slot 1, which covers the whole disk.
 */
VORLIX_EXPORT void read_gpt(FILE* stream, PartitionTable* table, GPTEntry* entries, const GPTHeader* header,
                            uint32_t active, int guard);

/**
 * Prints the entries in use among the first 128 on standard output. The column with the heading "size" contains the
 * last LBA.
 *
 * @param entries  an array of at least 128 records, whatever number the header has.
 * @return 0.
 */
VORLIX_EXPORT int print_gpt(const GPTEntry* entries);

/** Writes the four slots to the log as a table. */
VORLIX_EXPORT void print_bios_partition_table(const PartitionTable* table);

/**
 * Compares four slots with four others and logs the differences. Stops after the first slot that differs.
 *
 * @param fresh  the newly built slots; their values are logged first.
 * @param disk   the slots that were read from the disk.
 * @return 0 if all slots are equal, -1 otherwise.
 */
VORLIX_EXPORT int ComparePartitionTables(const MBRPartitionEntry* fresh, const MBRPartitionEntry* disk);

/**
 * Returns whether a disk has a guard MBR or a hybrid MBR. Only the type of slot 2 decides.
 *
 * @param device  a readable device. A device that cannot be opened counts as one with a guard MBR, so check that first.
 * @return 1 for a guard MBR, 0 for a hybrid MBR; 1 also after an exception.
 * @note The device stays open until the process ends: each call uses up one descriptor.
 */
VORLIX_EXPORT int has_guard_mbr(const char* device);

/* ------------------------------------------------------------------------------------------------- writing tables */

/**
 * Updates the MBR of a GPT disk to match its GPT, and patches the boot sector of its Windows partition.
 *
 * Sector 0 is written only if its slots differ from those that the GPT requires. If `partition` is 1 to 4 and `guard`
 * is 0, the boot sector of the partition is patched, whether or not sector 0 was written.
 *
 * @param device     the whole disk.
 * @param boot_code  file with the MBR boot code; null leaves sector 0 unchanged. **If the MBR has to be written and the
 *                   file cannot be opened, the process ends with status -1**, so check the path first.
 * @param partition  number of the slot to mark active and of the partition to patch, 1 to 4. 0 patches none, and the
 *                   slot that is active on the disk stays active. With an `id` it must not be 0 or above 4.
 * @param id         MBR type for that slot, 1 to 255; 0 leaves the type that the GPT requires.
 * @param volume     device of the partition whose boot sector is patched.
 * @param guard      1 builds a guard MBR. Any value except 0 leaves the type of the slot and the boot sector unchanged.
 * @param start      sector number to write into the boot sector; it should be the first LBA of the partition.
 * @return 0, or -1 for wrong arguments, a device that cannot be opened, a disk without a GPT, or a boot sector that
 *         could not be patched. The result does not show whether the MBR was refused or could not be written.
 */
VORLIX_EXPORT int update_mbr_and_partition(const char* device, const char* boot_code, uint32_t partition, uint32_t id,
                                           const char* volume, int guard, uint32_t start);

/**
 * Writes sector 0 of a disk (not its GPT, despite the name): the boot code from a file, the slots and the signature
 * from a table. Nothing is written unless the signature is 0xAA55 and slot 1 has type 0xEE.
 *
 * The device is opened with an exclusive lock, or with a shared lock if the exclusive one is not available. The
 * function never waits for a lock.
 *
 * @param non_interactive  0 asks on the terminal before writing, and before continuing without the exclusive lock.
 * @param device           the whole disk.
 * @param boot_code        file with the boot code. Its first 446 bytes are used; if it is shorter, zeros follow. If it
 *                         is null, nothing is written. **If the file cannot be opened, the process ends with status
 *                         -1.**
 * @param table            the table to write; its `boot_code` is not used.
 * @note If nothing is written because `boot_code` is null or the signature is wrong, the device stays open. There is no
 *       result: read sector 0 again to find out whether it was written.
 */
VORLIX_EXPORT void write_new_gpt(int non_interactive, const char* device, const char* boot_code,
                                 const PartitionTable* table);

/**
 * Patches the first sector of a FAT or NTFS volume. The hidden-sectors field at byte 28 becomes the start sector. The
 * eight bytes from 72 on, which are the serial number of an NTFS volume, become random.
 *
 * @param non_interactive  0 asks on the terminal before continuing without an exclusive lock.
 * @param unused1          pass 0.
 * @param start            start sector, written in little-endian order.
 * @param unused2          pass 0.
 * @param volume           device of the volume.
 * @return 0, or -1 if the device could not be opened or written. A failed write is also reported on standard error; if
 *         the device ended too early, as ENOSPC.
 * @warning The file system is not examined. On FAT32, bytes 72 to 79 are part of the volume label. On exFAT they are
 * the number of the volume's sectors, so that the volume is destroyed.
 */
VORLIX_EXPORT int update_start_sector(int non_interactive, uint64_t unused1, uint32_t start, uint64_t unused2,
                                      const char* volume);

/**
 * Returns, without waiting, whether a byte or the end of the file can be read from standard input.
 *
 * @return 1 or 0.
 */
VORLIX_EXPORT int kbhit(void);

/* ----------------------------------------------------------------------------------------------- device identity */

/**
 * Returns the number of a partition on its disk. Looks in the I/O registry's plane "IODeviceTree" and, if it is not
 * found there, in "IOService".
 *
 * @param name  the partition; the case of letters does not matter.
 * @return the partition's "Partition ID"; 0 if it has none.
 */
VORLIX_EXPORT int32_t partitionForDeviceIdentifier(const char* name);

/**
 * Returns the number of a partition on its disk, according to one plane of the I/O registry.
 *
 * @param name   the partition; the case of letters does not matter.
 * @param plane  "IODeviceTree" or "IOService".
 * @return the partition's "Partition ID"; 0 if it is not found or does not fit a signed 16-bit number.
 */
VORLIX_EXPORT int32_t partitionForDeviceIdentifierOnGivenPlane(const char* name, const char* plane);

/**
 * Returns the kind of medium that holds a device.
 *
 * The function examines the nine registry entries above the device. If several have a medium type, the one farthest
 * from the device counts.
 *
 * @param name  the device.
 * @param text  a buffer of 1024 bytes that receives the "Medium Type" in UTF-8, such as "Solid State" or "Rotational",
 *              cut to 1023 bytes. Unchanged if none was found.
 * @return 0, or -1 if none was found.
 */
VORLIX_EXPORT int32_t media_type(const char* name, char* text);

/**
 * Returns the identifiers and the offset of a partition, from the I/O registry. If the registry does not have the
 * disk's identifier, it is read from the disk's GPT.
 *
 * @param name            the partition.
 * @param disk_guid       receives the disk's GUID: 16 bytes in on-disk (mixed-endian) order. Unchanged if the disk has
 *                        no readable GPT. If it is null and the GPT has to be read, the function fails.
 * @param partition_guid  receives the partition's GUID: 16 bytes in the same order.
 * @param offset          receives the offset of the partition on its disk in bytes. Unchanged if the registry does not
 *                        have it.
 * @return 0, or -1 if the partition has no identifier or its whole disk is not known. If no device has that name, the
 *         result is also 0 and all results are unchanged, so clear them first.
 */
VORLIX_EXPORT int32_t lookup_disk_info(const char* name, uint8_t* disk_guid, uint8_t* partition_guid, int64_t* offset);

/**
 * Converts the text of a GUID to bytes: 00112233-4455-6677-8899-AABBCCDDEEFF becomes
 * 33 22 11 00 55 44 77 66 88 99 AA BB CC DD EE FF.
 *
 * @param text   hexadecimal digits in upper or lower case, two for each byte. **Its dashes are removed in place.** Each
 *               pair is read up to the first character that is not a digit; a pair without a digit is 0.
 * @param bytes  receives 16 bytes in on-disk (mixed-endian) order.
 * @return 0.
 */
VORLIX_EXPORT int32_t convert_uuid_string_to_bytes(char* text, uint8_t* bytes);

/**
 * Returns the name of the whole disk that holds a slice.
 *
 * @param disk        a buffer of 1024 bytes that receives the name, cut to 1023 bytes.
 * @param name        the slice, or the whole disk itself.
 * @param dev_prefix  any value except 0 puts "/dev/" before the name.
 * @return 0, or -1 if the slice's whole disk is not known. If no device has that name, the function prints a message on
 *         standard output, leaves the buffer unchanged and also returns 0.
 */
VORLIX_EXPORT int32_t disk_from_slice(char* disk, const char* name, int32_t dev_prefix);

/**
 * Reads the GUID of a disk from its primary GPT header.
 *
 * @param device  the whole disk.
 * @param guid    receives 16 bytes in on-disk (mixed-endian) order. Unchanged if LBA 1 has no GPT header.
 * @return 0, even if LBA 1 has no GPT header; -1 if the device could not be opened or closed.
 */
VORLIX_EXPORT int32_t disk_guid(const char* device, uint8_t* guid);

/** Removes every occurrence of a character from a string, in place. */
VORLIX_EXPORT void remove_all_chars(char* text, char character);

/* ------------------------------------------------------------------------------------------------------- mounting */

/**
 * Returns the mount point of a device's volume.
 *
 * @param name  the device.
 * @return the path; null if the volume is not mounted or the device is not known. The library owns the string. It stays
 *         valid until the same thread calls mounted_path() or mount_efi() again, or ends.
 */
VORLIX_EXPORT const char* mounted_path(const char* name);

/**
 * Mounts a device's volume at a mount point that the system chooses. The function runs the thread's run loop in the
 * default mode until the system has replied, without a time limit.
 *
 * @param name        the device.
 * @param read_write  any value except 0 mounts the volume for reading and writing and hides it from the desktop. 0
 *                    leaves both to the system.
 * @return 0, even if the mount was refused or the device does not exist. Call mounted_path() for the outcome.
 */
VORLIX_EXPORT int32_t mount_disk(const char* name, int32_t read_write);

/**
 * Mounts the EFI System Partition of a disk.
 *
 * @param disk  the whole disk.
 * @return its mount point, or null; the string is valid as long as one of mounted_path().
 */
VORLIX_EXPORT const char* mount_efi(const char* disk);

/**
 * Unmounts a device's volume. The function runs the thread's run loop as mount_disk() does.
 *
 * @param name  the device.
 * @return 0; -1 if the device does not exist or the system did not reply; -3 if the system refused, because the volume
 *         is in use or not mounted; -2 if it refused with a code above 0, which is not a code of Disk Arbitration.
 */
VORLIX_EXPORT int32_t unmount_disk(const char* name);

/**
 * Unmounts the EFI System Partition of a disk after a pause of one second.
 *
 * @param disk  the whole disk.
 * @return 0, even if the unmount failed; -1 only if `disk` is null.
 */
VORLIX_EXPORT int32_t unmount_efi(const char* disk);

/* --------------------------------------------------------------------------------------------- boot configuration */

/**
 * Installs a boot configuration store on the EFI System Partition of a disk and points it at a partition.
 *
 * The function mounts the slice and copies the template to `EFI/Microsoft/Boot/BCD`, over an existing file. It then
 * writes the GUIDs of the partition and of its disk at the fixed offsets of the mode, and unmounts the slice. The
 * template is neither parsed nor checked. If it ends before an offset, the store is extended and the gap filled with
 * zeros. For an unknown partition, and for a disk without a GUID, 16 zero bytes are written.
 *
 * @param source     path of the template; it must not be the file that it replaces.
 * @param disk       the whole disk; the store is written to its slice 1.
 * @param partition  the Windows partition.
 * @param mode       1 for an MDT template, 2 for an SCCM template, any other number for the standard EFI boot.
 * @return 0, or -1. After a failure the slice stays mounted. If the partition's identifiers were not found, the copied
 *         store also stays open and its last block is not yet written. If the destination cannot be written, the reason
 *         is on standard error and standard output.
 * @note If the destination path has 255 bytes or more, the process ends (abort) with a message on standard error.
 */
VORLIX_EXPORT int32_t update_bcd(const char* source, const char* disk, const char* partition, int32_t mode);

/* --------------------------------------------------------------------------------------------------- boot records */

/**
 * Returns whether a file or folder exists. A symbolic link is followed.
 *
 * @return 1 or 0.
 */
VORLIX_EXPORT int32_t file_exist(const char* path);

/**
 * Saves the boot code of a volume to a file: bytes 84 to 8191, without the volume's parameter block before them.
 *
 * @param device  the volume. It is opened for reading and writing.
 * @param file    path of the file, which must not exist yet. It receives exactly 8108 bytes.
 * @return 0; -1 if the file exists or the device cannot be opened; -2 if the device cannot be positioned; -3 if the
 *         device is too short or cannot be read; -4 if the file cannot be opened; -5 if the file cannot be written.
 * @note After a failure with -2 or -3 the device stays open, after -5 the file.
 */
VORLIX_EXPORT int32_t write_vbr_to_file(const char* device, const char* file);

/**
 * Saves the boot code of a disk to a file: bytes 0 to 445 of sector 0, without slots and signature. The disk is opened
 * with a shared lock. **If the disk cannot be opened, the process ends with status -1**, so check that first.
 *
 * @param device  the whole disk.
 * @param file    path of the file, which must not exist yet. It receives exactly 446 bytes.
 * @return 0, or -1, also if an argument is null.
 * @note If the disk cannot be read, it stays open; if the file cannot be written, the file stays open.
 */
VORLIX_EXPORT int32_t write_mbr_to_file(const char* device, const char* file);

/**
 * Writes saved boot code to bytes 84 to 8191 of a volume; the volume's parameter block before them stays. The function
 * always unmounts the volume first. The volume may have another size than the one from which the code was saved.
 *
 * @param file    path of a file from write_vbr_to_file(). Bytes after the first 8108 are ignored.
 * @param device  the volume.
 * @return 0; -1 if the file does not exist; -2 if the file cannot be opened; -3 if the file is too short or cannot be
 *         read; -5 if the device cannot be opened; -6 if the device cannot be positioned; -7 if the device cannot be
 *         written or synced.
 * @note After a failure with -3 the file stays open, after -6 or -7 the device.
 */
VORLIX_EXPORT int32_t restore_vbr_to_device(const char* file, const char* device);

/**
 * Sets the owner and group of a saved file, then its mode to 0644. A symbolic link is followed.
 *
 * @param path   path of the file.
 * @param owner  user ID.
 * @param group  group ID.
 * @return 0, or -1 with `errno` set if one of the two steps failed. If the owner could not be set, the mode is not
 *         changed.
 */
VORLIX_EXPORT int32_t change_ownership(const char* path, uint32_t owner, uint32_t group);

#ifdef __cplusplus
}
#endif

#endif
