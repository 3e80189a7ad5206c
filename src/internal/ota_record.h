// SPDX-License-Identifier: Apache-2.0
/** Where the stored records are: the slot block in "misc", the status and anti-rollback records in "ubootenv". */
#ifndef OTA_RECORD_H
#define OTA_RECORD_H

#include "ota_utils.h"

/**
 * Fills in the path, the medium and the offset of a record.
 * @param part_name  a partition that exists once
 * @param offset     of the record in the partition, in bytes
 * @param record     out; its size is not set
 * @return 0; negative when the partition has no path, which has been logged. An unknown medium is not a failure
 */
int32_t locate_record(const char* part_name, uint64_t offset, ota_file_info_t* record);

#endif
