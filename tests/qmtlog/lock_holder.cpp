// lock_holder PATH: takes the log's lock file the way another process could (an flock and an
// open-file-description lock, write when the file opens for writing, read otherwise), prints
// "held" and keeps it until killed. Prints "refused" and exits 1 when the file cannot be opened.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    bool writable = true;
    int fd = open(argv[1], O_RDWR);
    if (fd < 0) {
        writable = false;
        fd = open(argv[1], O_RDONLY);
    }
    if (fd < 0) {
        std::puts("refused");
        return 1;
    }
    struct flock fl {};
    fl.l_type = writable ? F_WRLCK : F_RDLCK;
    fl.l_whence = SEEK_SET;
    if (flock(fd, LOCK_EX) != 0 || fcntl(fd, F_OFD_SETLKW, &fl) != 0) {
        std::puts("refused");
        return 1;
    }
    std::puts("held");
    std::fflush(stdout);
    for (;;) pause();
}
