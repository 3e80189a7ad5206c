# SPDX-License-Identifier: Apache-2.0
# What adapts the boot script to this board: it is put before the script. The boot partition holds a FIT image with a
# kernel and its RAM disk. After a panic the board starts again. The last resort does not return, since U-Boot would go
# on to its other devices and to the network.
setenv tessera_boot 'bootm ${kernel_addr_r}:kernel-1 ${kernel_addr_r}:ramdisk-1 ${tessera_dtb}'
setenv tessera_args 'setenv bootargs root=PARTLABEL=system_${tessera_slot} ro console=ttyAMA0 quiet panic=1'
setenv tessera_last_resort 'echo "tessera: no slot boots"; while true; do sleep 60; done'
