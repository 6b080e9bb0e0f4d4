// stallfs MOUNTDIR IMAGE HOLDFILE [FAILFILE] - serves IMAGE as MOUNTDIR/disk.img through FUSE,
// read-only; holds every read while HOLDFILE exists (at most 60 s, so that a test that fails never
// leaves the kernel waiting for ever) and fails it with EIO while FAILFILE exists. A loop device
// over MOUNTDIR/disk.img is then a real block device whose reads a test can hold in the kernel or
// fail. Runs in the foreground until unmounted or killed.
#define FUSE_USE_VERSION 31
#include <fuse.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

int image_fd = -1;
const char *hold_file = nullptr;
const char *fail_file = nullptr;
off_t image_size = 0;

int fs_getattr(const char *path, struct stat *st, fuse_file_info *)
{
    const bool root = std::strcmp(path, "/") == 0;
    if (!root && std::strcmp(path, "/disk.img") != 0)
        return -ENOENT;
    std::memset(st, 0, sizeof *st);
    st->st_mode = root ? S_IFDIR | 0755 : S_IFREG | 0444;
    st->st_nlink = root ? 2 : 1;
    st->st_size = root ? 0 : image_size;
    return 0;
}

int fs_open(const char *path, fuse_file_info *fi)
{
    if (std::strcmp(path, "/disk.img") != 0)
        return -ENOENT;
    fi->direct_io = 1;  // every read reaches us: no page cache answers for a held disk
    return 0;
}

int fs_read(const char *, char *buf, size_t size, off_t off, fuse_file_info *)
{
    for (int i = 0; i < 6000 && access(hold_file, F_OK) == 0; ++i)
        usleep(10000);
    if (fail_file != nullptr && access(fail_file, F_OK) == 0)
        return -EIO;
    ssize_t n = pread(image_fd, buf, size, off);
    return n < 0 ? -errno : static_cast<int>(n);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: stallfs MOUNTDIR IMAGE HOLDFILE [FAILFILE]\n");
        return 2;
    }
    image_fd = open(argv[2], O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (image_fd < 0 || fstat(image_fd, &st) != 0) {
        std::perror(argv[2]);
        return 1;
    }
    image_size = st.st_size;
    hold_file = argv[3];
    fail_file = argv[4];  // the argv array ends with a null pointer
    fuse_operations ops{};
    ops.getattr = fs_getattr;
    ops.open = fs_open;
    ops.read = fs_read;
    char arg0[] = "qmt-stallfs";
    char *fuse_argv[] = {arg0, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, fuse_argv);
    fuse *f = fuse_new(&args, &ops, sizeof ops, nullptr);
    fuse_opt_free_args(&args);
    if (f == nullptr || fuse_mount(f, argv[1]) != 0) {
        std::fprintf(stderr, "stallfs: cannot mount %s\n", argv[1]);
        return 1;
    }
    int rc = fuse_loop_mt(f, 0);  // threads: a held read must not hold the others
    fuse_unmount(f);
    fuse_destroy(f);
    return rc == 0 ? 0 : 1;
}
