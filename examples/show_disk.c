/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Prints the MBR and the GPT of a disk or of a disk-image file:
 *
 *     show_disk mac.img
 *
 * It only reads the disk. The library's messages go to its log file.
 */
#include <Vorlix/QDSDiskFunctions.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#define GPT_SIGNATURE UINT64_C(0x5452415020494645)
#define PRINTED_ENTRIES 128 /* print_gpt() reads exactly this number of records */
#define LARGEST_COUNT 65536 /* a damaged header may claim 2^32 */

static void print_mbr(const PartitionTable* table, uint32_t active) {
  printf("MBR signature %04X, active slot %u\n", table->signature, active);
  printf("slot  active  type      start       size\n");
  for (int i = 0; i < 4; ++i) {
    const MBRPartitionEntry* slot = &table->parts[i];
    printf("%4d  %6s    %02X %10u %10u\n", i + 1, slot->flag == 0x80 ? "yes" : "no", slot->type, slot->lba, slot->size);
  }
}

/* Returns 0, or -1 with the reason in errno. */
static int print_entries(FILE* disk, const GPTHeader* read, uint64_t block_size) {
  GPTHeader header = *read;
  if (header.number_of_entries > LARGEST_COUNT) header.number_of_entries = LARGEST_COUNT;
  if (header.partition_entry_lba > INT64_MAX / block_size) {
    errno = EOVERFLOW;
    return -1;
  }
  if (fseeko(disk, (off_t)(header.partition_entry_lba * block_size), SEEK_SET) != 0) return -1;

  const size_t room = header.number_of_entries > PRINTED_ENTRIES ? header.number_of_entries : PRINTED_ENTRIES;
  GPTEntry* entries = calloc(room, sizeof *entries);
  if (entries == NULL) return -1;
  /* print_gpt() recognises an unused record by its GUID text, so set the text of all records, also of those that the
   * header does not count. */
  for (size_t i = 0; i < room; ++i) ConvertToGUID(entries[i].type_guid, entries[i].guid_text);

  PartitionTable hybrid;
  memset(&hybrid, 0, sizeof hybrid);
  read_gpt(disk, &hybrid, entries, &header, 0, 0);
  print_gpt(entries);
  free(entries);
  return 0;
}

static int print_gpt_of(FILE* disk, const char* path) {
  const uint64_t block_size = getblocksize(path);
  GPTHeader header;
  memset(&header, 0, sizeof header);
  if (block_size == 0 || fseeko(disk, (off_t)block_size, SEEK_SET) != 0) {
    errno = ENODEV;
    return -1;
  }
  read_gpt_header(disk, &header);
  if (header.signature != GPT_SIGNATURE) {
    printf("no GPT\n");
    return 0;
  }
  return print_entries(disk, &header, block_size);
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: show_disk DISK\n");
    return 2;
  }
  FILE* disk = fopen(argv[1], "rb");
  if (disk == NULL) {
    perror(argv[1]);
    return 1;
  }
  PartitionTable table;
  memset(&table, 0, sizeof table);
  uint32_t active = 0;
  read_bios_partition_table(disk, &table, &active);
  print_mbr(&table, active);
  const int result = print_gpt_of(disk, argv[1]);
  if (result != 0) perror(argv[1]);
  fclose(disk);
  return result == 0 ? 0 : 1;
}
