// SPDX-License-Identifier: Apache-2.0
/** The owner of an open package. */
#ifndef MINIZIP_OWNER_H
#define MINIZIP_OWNER_H

#include "ota_owner.h"
#include "vx_zip.h" /* includes minizip so that no other header changes */

using ota_package = std::unique_ptr<void, ota_releaser<unzClose>>;

#endif
