// SPDX-License-Identifier: Apache-2.0
/**
 * The flash simulator: registered files behave like MTD or UBI character devices for the program that
 * libtessera_flash is loaded into, either linked before libtessera or by LD_PRELOAD. All other files are
 * left alone. A file is identified by its inode, not by its name: links lead to the device, and a
 * descriptor may be duplicated or inherited.
 *
 * A device is registered by one line:
 *
 *   <path> mtd|nor|ubi|block erasesize=131072 writesize=2048 [bad=3,6] [state=<path>]
 *
 *   mtd    NAND, or NOR with a writesize of 1
 *   nor    NOR; the writesize is 1
 *   ubi    a dynamic UBI volume; erasesize is the size of a LEB
 *   block  a disk with a write cache, such as eMMC; no properties but `state`
 *
 * The file has to exist; its size is that of the device and a multiple of erasesize (of 512 for a disk).
 * `bad` lists the blocks that are bad from the factory. State that is not in the bytes (pages that can no
 * longer be read, blocks marked bad later, sectors not yet synced) is kept in `state`, by default the path
 * followed by ".state", so that the device outlives the process. Outside changes to the file are seen
 * immediately. Reading and writing through stdio bypasses the device and accesses the file itself.
 *
 * Operations are numbered from 1, over all devices and by kind, in each process. If TESSERA_FLASH_POWER names
 * a file, all processes that do so count a power cut's operations together, and a cut that kills ends each of them
 * at its next operation. The file has two native 64-bit numbers: the operations so far, and 1 after such a cut.
 * The kinds of operation and the rules of a fault script are in `board --help`.
 *
 * The journal has a line for every operation that reached a device,
 *
 *   <name of the file> <kind>[ <position>[+<length>]] = <result>
 *
 * with the position in bytes, or the number of the LEB for LEB requests; a failure is a negated errno.
 *
 * A program that the library is preloaded into is set up by its environment: TESSERA_FLASH_CONF names a
 * file with one device per line ('#' begins a comment), TESSERA_FLASH_FAULT holds a fault script, and
 * TESSERA_FLASH_JOURNAL names a file that the journal is appended to. An invalid setup ends the program
 * with a line on stderr: a test with a device silently missing would prove nothing.
 */
#ifndef FLASH_SIM_H
#define FLASH_SIM_H

#ifdef __cplusplus
extern "C" {
#endif

#define FLASH_SIM_API __attribute__((visibility("default")))

/** Registers a device. @return 0; -1 with a line on stderr */
FLASH_SIM_API int flash_sim_register(const char* line);

/** Forgets all devices, faults and the journal; the files stay. */
FLASH_SIM_API void flash_sim_clear(void);

/** Replaces the fault script and restarts the count. @return 0; -1 with a line on stderr */
FLASH_SIM_API int flash_sim_fault(const char* script);

/** Simulates a reboot: the power is back, the fault script has ended, settings of the kernel are lost. */
FLASH_SIM_API void flash_sim_reboot(void);

/** The number of operations since the last flash_sim_fault(), flash_sim_reboot() or flash_sim_clear(). */
FLASH_SIM_API unsigned long flash_sim_operations(void);

/** Their journal; the text is valid until the next of these calls. */
FLASH_SIM_API const char* flash_sim_journal(void);

#ifdef __cplusplus
}
#endif

#endif
