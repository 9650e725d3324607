#!/usr/bin/env bash
# Runs a command inside a small qemu VM whose kernel has the virtual capture drivers loaded
# (vivid: V4L2 cameras; snd-aloop: a loopback sound card), so the V4L2 and ALSA code meets real
# kernel drivers on a machine without devices.
#
#   scripts/devvm.sh COMMAND [ARG...]
#
# The guest sees the host's root read-only (the freshly built binaries and the host's libraries),
# a tmpfs on /tmp, the current folder (the project, read-only, so a checkout under /tmp is seen
# too), and one writable folder shared with the host whose path is given to the command
# in $TAVIX_VM_SHARE. The command runs as root in that chroot, with TAVIX_REQUIRE_DEVICES=1 (the
# device tests then fail, rather than skip, when a device they need is missing); its exit status
# becomes this script's. A command that loads or unloads drivers itself runs
# `/usr/sbin/modprobe -d $TAVIX_VM_KROOT -S $TAVIX_VM_KVER DRIVER` (the guest kernel's modules,
# snd-dummy among them).
#
# Exit status 77 means no VM could be had (no qemu, no kernel, no busybox, the VM did not boot;
# the reason is printed): callers treat it as "skipped". Everything after the boot fails with a
# non-zero status other than 77, printing the command's output so far and the console's tail: a
# driver that does not load, a command that does not finish within $TAVIX_VM_TIMEOUT seconds
# (default 2400), a VM that ends before the command does.
#
# vivid is loaded with the options in $TAVIX_VM_VIVID (default "n_devs=1": one instance, its
# capture node with four inputs), e.g. TAVIX_VM_VIVID="n_devs=2 multiplanar=1,2" for a second,
# multiplanar instance.
#
# The kernel package is downloaded once into $TAVIX_VM_CACHE (default /var/cache/tavix-vm).
set -euo pipefail

skip() { echo "devvm: skipped: $*" >&2; exit 77; }
[ $# -ge 1 ] || { echo "usage: $0 COMMAND [ARG...]" >&2; exit 2; }

cache=${TAVIX_VM_CACHE:-/var/cache/tavix-vm}
timeout_s=${TAVIX_VM_TIMEOUT:-2400}
vivid_options=${TAVIX_VM_VIVID:-n_devs=1}
for tool in qemu-system-x86_64 depmod modprobe; do
  command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed (scripts/install-deps.sh installs it)"
done
busybox=/bin/busybox
[ -x "$busybox" ] || skip "no static busybox (package busybox-static)"

# The kernel: the package the linux-image-amd64 meta-package names, unpacked into the cache.
mkdir -p "$cache" || skip "cannot create $cache"
lock="$cache/.lock"
exec 9>"$lock"
flock 9
if [ ! -f "$cache/version" ]; then
  pkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-/ {print $2; exit}')
  [ -n "$pkg" ] || { apt-get update -q >/dev/null 2>&1 || true;
    pkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-/ {print $2; exit}'); }
  [ -n "$pkg" ] || skip "cannot find the kernel package"
  (cd "$cache" && rm -f ./*.deb && apt-get download "$pkg" >/dev/null 2>&1) || skip "cannot download $pkg"
  rm -rf "$cache/root" && mkdir -p "$cache/root"
  dpkg -x "$cache"/*.deb "$cache/root" || skip "cannot unpack $pkg"
  rm -f "$cache"/*.deb
  version=$(ls "$cache/root/lib/modules" | head -n 1)
  depmod -b "$cache/root" "$version" || skip "depmod failed"
  echo "$version" > "$cache/version"
fi
version=$(cat "$cache/version")
kroot="$cache/root"
vmlinuz="$kroot/boot/vmlinuz-$version"
[ -f "$vmlinuz" ] || skip "no kernel image in $kroot"

# The initrd: static busybox, the modules 9p needs, and /init.
initrd="$cache/initrd-5.gz" # the number changes with /init below
if [ ! -f "$initrd" ]; then
  work=$(mktemp -d)
  mkdir -p "$work"/{bin,modules,proc,sys,dev,host}
  cp "$busybox" "$work/bin/busybox"
  # The virtio transport first: 9pnet_virtio finds no device without it.
  modprobe -d "$kroot" -S "$version" --show-depends virtio_pci | awk '/^insmod/ {print $2}' > "$work/order"
  modprobe -d "$kroot" -S "$version" --show-depends 9pnet_virtio | awk '/^insmod/ {print $2}' >> "$work/order"
  modprobe -d "$kroot" -S "$version" --show-depends 9p | awk '/^insmod/ {print $2}' >> "$work/order"
  : > "$work/modules/order"
  while read -r m; do
    base=$(basename "$m"); base=${base%.xz}
    grep -qx "$base" "$work/modules/order" && continue
    case "$m" in *.xz) xz -dc "$m" > "$work/modules/$base" ;; *) cp "$m" "$work/modules/$base" ;; esac
    echo "$base" >> "$work/modules/order"
  done < "$work/order"
  cat > "$work/init" <<'INIT'
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc proc /proc; mount -t sysfs sys /sys; mount -t devtmpfs dev /dev
# virtio_pci must come before 9pnet_virtio can find its transport.
for m in $(cat /modules/order); do insmod /modules/$m 2>/dev/null; done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=262144 hostroot /host
for d in dev proc sys; do mount --bind /$d /host/$d; done
mount -t tmpfs tmp /host/tmp
# The project folder over whatever hides it (a checkout under /tmp is under the tmpfs now).
project=$(sed -n 's/.*tavix_project=\([^ ]*\).*/\1/p' /proc/cmdline)
mkdir -p /host$project 2>/dev/null
mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=262144 project /host$project
share=$(sed -n 's/.*tavix_share=\([^ ]*\).*/\1/p' /proc/cmdline)
mkdir -p /host$share
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 share /host$share
: > /host$share/booted
kver=$(sed -n 's/.*tavix_kver=\([^ ]*\).*/\1/p' /proc/cmdline)
kroot=$(sed -n 's/.*tavix_kroot=\([^ ]*\).*/\1/p' /proc/cmdline)
# A driver that does not load leaves the devices out: that is a failed run, not a pass.
loaded=yes
for driver in "vivid $(cat /host$share/vivid-options)" snd-aloop; do
  if ! chroot /host /usr/sbin/modprobe -d $kroot -S $kver $driver > /host$share/modprobe 2>&1; then
    echo "devvm: modprobe $driver failed:" >> /host$share/drivers
    cat /host$share/modprobe >> /host$share/drivers
    loaded=no
  fi
done
if [ $loaded = yes ]; then
  chroot /host /bin/sh -c "TAVIX_VM_SHARE=$share TAVIX_REQUIRE_DEVICES=1 HOME=/tmp sh $share/command.sh" > /host$share/output 2>&1
  echo $? > /host$share/status
fi
sync
poweroff -f
INIT
  chmod +x "$work/init"
  (cd "$work" && find . | "$busybox" cpio -o -H newc 2>/dev/null | gzip) > "$initrd.tmp"
  mv "$initrd.tmp" "$initrd"
  rm -rf "$work"
fi
flock -u 9

share=$(mktemp -d /tmp/tavix-vm.XXXXXX)
trap 'rm -rf "$share"' EXIT
{
  echo "cd $(printf '%q' "$PWD") || exit 125"
  # Where the guest's modules are, for tests that load and unload drivers themselves.
  echo "export TAVIX_VM_KROOT=$(printf '%q' "$kroot") TAVIX_VM_KVER=$(printf '%q' "$version")"
  printf '%q ' "$@"; echo
} > "$share/command.sh"
echo "$vivid_options" > "$share/vivid-options"

started=$(date +%s)
vm_status=0
# One emulated processor: with two, each runs in a host thread of its own and they wait for each
# other whenever the host runs only one (a busy machine), so the VM tests beside four busy loops
# took four times as long as with one. no_timer_check: on a busy host the emulated processor is
# too slow for the kernel's check that the timer reaches the IO-APIC, which then panics
# ("IO-APIC + timer doesn't work!").
timeout "$timeout_s" qemu-system-x86_64 -accel tcg -cpu max -m 1024 -smp 1 -nographic -no-reboot \
  -kernel "$vmlinuz" -initrd "$initrd" \
  -append "console=ttyS0 quiet panic=-1 no_timer_check tavix_share=$share tavix_project=$PWD tavix_kver=$version tavix_kroot=$kroot" \
  -virtfs local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap \
  -virtfs local,path="$PWD",mount_tag=project,security_model=none,readonly=on,multidevs=remap \
  -virtfs local,path="$share",mount_tag=share,security_model=none,multidevs=remap \
  > "$share/console" 2>&1 || vm_status=$?

cat "$share/output" 2>/dev/null || true
fail() {
  echo "devvm: failed after $(( $(date +%s) - started )) s: $*; the console's last lines:" >&2
  tail -n 20 "$share/console" >&2
  exit 1
}
if [ "$vm_status" -eq 124 ]; then
  fail "the VM did not finish within $timeout_s s (TAVIX_VM_TIMEOUT); the command's output so far is above"
elif [ ! -f "$share/booted" ]; then
  echo "devvm: skipped: the VM did not boot (qemu exit status $vm_status); its console said:" >&2
  tail -n 20 "$share/console" >&2
  exit 77
elif [ -f "$share/drivers" ]; then
  cat "$share/drivers" >&2
  fail "a capture driver did not load (TAVIX_VM_VIVID=\"$vivid_options\")"
elif [ ! -f "$share/status" ]; then
  fail "the VM ended before the command did (qemu exit status $vm_status)"
fi
status=$(cat "$share/status")
# 77 is reserved for "no VM": a command that says "skipped" did not test anything either.
if [ "$status" -eq 77 ]; then
  echo "devvm: the command exited 77 (skipped) inside the VM; counted as a failure" >&2
  exit 1
fi
exit "$status"
