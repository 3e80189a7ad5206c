/**
 * The flash simulator: registered files behave like MTD or UBI character devices for the program that
 * libtessera_flash is loaded into, either linked in front of libtessera or by LD_PRELOAD. All other
 * files are left alone. A file is known by what it is and not by its name: links lead to the device,
 * and a descriptor may be duplicated or inherited.
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
 * The file has to exist; its size is the device's and a multiple of erasesize (of 512 for a disk). `bad`
 * numbers the blocks that are bad from the factory. What the bytes do not tell (pages that cannot be read
 * any more, blocks marked bad later, sectors not yet synced) is kept in `state`, by default the path with
 * ".state" behind it, so that the device outlasts the process. A change to the file from outside is seen
 * at once. Reading and writing through stdio goes to the file itself, past the device.
 *
 * Operations are numbered from 1, over all devices of the process and by kind. The kinds of operation and
 * the rules of a fault script are in `board --help`.
 *
 * In the journal every operation that reached a device leaves a line,
 *
 *   <name of the file> <kind>[ <position>[+<length>]] = <result>
 *
 * the position in bytes, for LEB requests the number of the LEB; a failure shows as the negative errno.
 *
 * A program that is merely loaded with the library is set up by its environment: TESSERA_FLASH_CONF
 * names a file with one device a line ('#' begins a comment), TESSERA_FLASH_FAULT holds a fault script,
 * and TESSERA_FLASH_JOURNAL names a file that the journal is appended to. A setup that cannot be
 * followed ends the program, with a line on stderr: a device that is silently missing proves nothing.
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

/** Replaces the fault script and starts counting anew. @return 0; -1 with a line on stderr */
FLASH_SIM_API int flash_sim_fault(const char* script);

/** What a reboot does: the power is back, the fault script is over, settings of the kernel are lost. */
FLASH_SIM_API void flash_sim_reboot(void);

/** The operations since the last flash_sim_fault(), flash_sim_reboot() or flash_sim_clear(). */
FLASH_SIM_API unsigned long flash_sim_operations(void);

/** Their journal; the text stays until the next of these calls. */
FLASH_SIM_API const char* flash_sim_journal(void);

#ifdef __cplusplus
}
#endif

#endif
