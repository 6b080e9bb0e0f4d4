// linuxdev.cpp - the linux storage backend (block devices under /sys/class/block).
#include "backend.h"

namespace qmtp {
namespace {

class LinuxBackend final : public Backend {
public:
    const char *name() const override { return "linux"; }
    DWORD open_volume(const std::string &, std::unique_ptr<Volume> *) override { return ERROR_NOT_SUPPORTED; }
    DWORD open_disk(DWORD, std::unique_ptr<Disk> *) override { return ERROR_NOT_SUPPORTED; }
};

} // namespace

std::unique_ptr<Backend> make_linux_backend() { return std::make_unique<LinuxBackend>(); }

} // namespace qmtp
