/* SPDX-License-Identifier: Apache-2.0 */
/* The flat face from C11: every record, every exported variable and every function, with C linkage. The object is
   linked into a test program, which proves that the names exist. Nothing calls it. */
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/Vorlix_vers.h>

_Static_assert(sizeof(GPTHeader) == 512, "the header fills its sector");
_Static_assert(sizeof(GPTEntry) == 168, "128 bytes on disk and 40 of text");
_Static_assert(sizeof(PartitionTypeMap) == 44, "type and text");
_Static_assert(sizeof(((PartitionTable*)0)->boot_code) == 446, "boot code");
_Static_assert(sizeof(partition_maps) / sizeof(partition_maps[0]) == 10, "ten rows");
_Static_assert(sizeof(mkntfs) == 2048 && sizeof(ntfs3gpath) == 2048 && sizeof(ntfscatpath) == 2048, "2048 bytes");
_Static_assert(sizeof(ntfsclonepath) == 1024 && sizeof(ntfscppath) == 1024 && sizeof(ntfsinfopath) == 1024 &&
                   sizeof(ntfsresizepath) == 1024,
               "1024 bytes");

int use_flat_face_from_c(FILE* stream, GPTEntry* entries);

int use_flat_face_from_c(FILE* stream, GPTEntry* entries) {
  PartitionTable table = {0};
  GPTHeader header = {0};
  uint32_t active = 0;
  uint32_t chs[3];
  char text[37];
  int sum = logLine("from C") + verbose_flag + number_of_partition_maps + (int)VorlixVersionNumber;
  sum += VorlixVersionString[0] + mkntfs[0] + ntfs3gpath[0] + ntfscatpath[0] + ntfsclonepath[0] + ntfscppath[0];
  sum += ntfsinfopath[0] + ntfsresizepath[0];
  calculate_chs(chs, 40);
  sum += ConvertToGUID(entries[0].type_guid, text);
  sum += getblocksize("disk0") == 512;
  sum += read_bios_partition_table(stream, &table, &active);
  sum += read_gpt_header(stream, &header);
  read_gpt(stream, &table, entries, &header, active, 0);
  sum += print_gpt(entries);
  print_bios_partition_table(&table);
  sum += ComparePartitionTables(table.parts, table.parts);
  sum += has_guard_mbr("disk0");
  sum += update_mbr_and_partition("disk0", "boot-code", 3, 7, "disk0s3", 0, 40);
  write_new_gpt(1, "disk0", "boot-code", &table);
  sum += update_start_sector(1, 0, 40, 0, "disk0s3");
  return sum + kbhit();
}
