#!/bin/sh
# The first process of the lab's kernel: mounts what a Debian needs, loads the kernel
# modules, lets runner.py play the scenarios and powers off.
#
# From the kernel's command line: LAB_FOLDER, the folder of this file, and LAB_OUT, the
# host's folder that results go to. The runner's exit status is left in LAB_OUT/rc; when
# that file is missing, the lab did not come to its end.
set -u
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export HOME=/ LANG=C.UTF-8

mount -t proc proc /proc
mount -t sysfs sysfs /sys
[ -c /dev/null ] || mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
mkdir -p /run/out /run/lab /run/lock
mount -t hostfs -o "$LAB_OUT" none /run/out
mount --make-rprivate /

# The kernel loads by itself what a tunnel needs later on, ciphers for instance.
mkdir -p /run/modules/lib/modules
ln -s "/usr/lib/uml/modules/$(uname -r)" /run/modules/lib/modules/
printf '#!/bin/sh\nexec /sbin/modprobe -d /run/modules "$@"\n' >/run/modprobe
chmod 755 /run/modprobe
echo /run/modprobe >/proc/sys/kernel/modprobe
/run/modprobe -a overlay tun veth ip_gre esp4 xfrm_user

# Every gateway has a /run, and so a syslog, of its own; /dev is the same for all.
ln -sf /run/devlog /dev/log
# A syslog whose reader has to wait for the core must not lose a record: stories live on them.
echo 1000 >/proc/sys/net/unix/max_dgram_qlen

/usr/bin/python3 -E -S -B "$LAB_FOLDER/runner.py" >/run/out/runner.log 2>&1
echo $? >/run/out/rc
sync
echo o >/proc/sysrq-trigger
sleep 5
