# SPDX-License-Identifier: Apache-2.0
# A boot script for U-Boot without ab_select: chooses the slot as `tessera slots` shows it, takes one of its tries, and
# boots the kernel in its boot partition. README.md says how to install it and which variables adapt it to a board.

test -n "${tessera_if}" || setenv tessera_if virtio
test -n "${tessera_dev}" || setenv tessera_dev 0
test -n "${tessera_medium}" || setenv tessera_medium MMC
test -n "${tessera_dtb}" || setenv tessera_dtb ${fdtcontroladdr}
test -n "${tessera_boot}" || setenv tessera_boot 'booti ${kernel_addr_r} - ${tessera_dtb}'
test -n "${tessera_args}" || setenv tessera_args 'setenv bootargs root=PARTLABEL=system_${tessera_slot} ro rootwait'
test -n "${tessera_last_resort}" || setenv tessera_last_resort 'echo "tessera: waiting for a command"'

# The block is in the sector at byte 2048 of misc. After the sector's copy: the checksum as crc32 stores it, most
# significant byte first, and as the block has it.
setenv tessera_block ${kernel_addr_r}
setexpr tessera_magic ${tessera_block} + 4
setexpr tessera_checksum ${tessera_block} + 1c
setexpr tessera_sum ${tessera_block} + 400
setexpr tessera_reversed ${tessera_block} + 410

setenv tessera_compute 'crc32 ${tessera_block} 1c ${tessera_sum}; for i in 0 1 2 3; do setexpr from ${tessera_sum} + ${i}; setexpr to ${tessera_reversed} + 3; setexpr to ${to} - ${i}; cp.b ${from} ${to} 1; done'
setenv tessera_save 'run tessera_compute; cp.b ${tessera_reversed} ${tessera_checksum} 4; ${tessera_if} write ${tessera_block} ${tessera_sector} 1'

setenv tessera_state lost
${tessera_if} dev ${tessera_dev}
if part start ${tessera_if} ${tessera_dev} misc tessera_sector; then
    setexpr tessera_sector ${tessera_sector} + 4
    if ${tessera_if} read ${tessera_block} ${tessera_sector} 1; then
        if itest.l *${tessera_magic} == 42414342; then
            run tessera_compute
            cmp.b ${tessera_reversed} ${tessera_checksum} 4 && setenv tessera_state valid
        fi
    else
        mw.b ${tessera_block} 0 200
    fi
else
    setenv tessera_state none
fi

# Both slots on trial, priority 15, 7 tries. Only the block's own 32 bytes change in the sector, unless it could not be
# read: then zeros surround them.
if test ${tessera_state} = lost; then
    echo "tessera: no valid slot block: both slots are on trial"
    mw.b ${tessera_block} 0 20
    mw.b ${tessera_block} 61
    mw.l ${tessera_magic} 42414342
    setexpr to ${tessera_block} + 8
    mw.l ${to} 201
    setexpr to ${tessera_block} + c
    mw.l ${to} 7f007f
fi

# A slot is a word: bits 0 to 3 priority, 4 to 6 tries, 7 marked good, 8 corrupted. The best one has the highest
# priority; of two, one that is marked good comes first, then the one with more tries, then slot a.
setenv tessera_slot
setenv tessera_best 0
if test ${tessera_state} != none; then
    for name in a b; do
        test ${name} = a && setexpr at ${tessera_block} + c
        test ${name} = b && setexpr at ${tessera_block} + e
        setexpr.w word *${at}
        setexpr tries ${word} "&" 170
        setexpr rank ${word} "&" f
        setexpr rank ${rank} * 10
        setexpr low ${word} "&" f0
        setexpr low ${low} / 10
        setexpr rank ${rank} + ${low}
        setexpr rank ${rank} + 1
        if itest ${tries} != 0 && itest ${tries} -lt 100 && itest ${rank} -gt ${tessera_best}; then
            setenv tessera_best ${rank}
            setenv tessera_slot ${name}
            setenv tessera_word ${word}
            setenv tessera_at ${at}
        fi
    done
fi

# A try is taken in the medium first: a slot that hangs must not be tried without end.
setenv tessera_ready
if test -n "${tessera_slot}"; then
    setexpr good ${tessera_word} "&" 80
    if itest ${good} != 0; then
        setenv tessera_ready yes
    else
        setexpr tessera_word ${tessera_word} - 10
        mw.w ${tessera_at} ${tessera_word}
        if run tessera_save; then
            setenv tessera_ready yes
        else
            echo "tessera: the slot block cannot be written"
        fi
    fi
else
    echo "tessera: no bootable slot"
fi

if test -n "${tessera_ready}"; then
    echo "tessera: slot ${tessera_slot}"
    run tessera_args
    setenv bootargs "${bootargs} veloxboot.medium=${tessera_medium} veloxboot.mode=normal veloxboot.slot_suffix=_${tessera_slot}"
    if part start ${tessera_if} ${tessera_dev} boot_${tessera_slot} start && part size ${tessera_if} ${tessera_dev} boot_${tessera_slot} size; then
        ${tessera_if} read ${kernel_addr_r} ${start} ${size} && run tessera_boot
    fi
    echo "tessera: slot ${tessera_slot} does not boot"
    itest ${good} != 0 || reset
fi
run tessera_last_resort
