// The version resource of the main program: read once from the ".qmtrsrc" section of the running
// executable's ELF file and kept for the life of the process, so locked pointers stay valid.
#include "internal.h"
#include "qmtplat.h"
#include "qmtrsrc.h"

#include <elf.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace {

constexpr DWORD kErrorModNotFound = 126;

struct Resource {
    WORD type;
    WORD name;
    WORD language;
    const BYTE *data;
    DWORD size;
};

struct Image {
    std::vector<BYTE> bytes;
    std::vector<Resource> resources;
    bool present = false;
};

// Stands for the main program; only its address is used.
const char g_main_module = 0;

bool read_at(FILE *f, long offset, void *out, size_t size) {
    return std::fseek(f, offset, SEEK_SET) == 0 && std::fread(out, 1, size, f) == size;
}

std::vector<BYTE> read_section(const char *path, const char *wanted) {
    std::vector<BYTE> out;
    FILE *f = std::fopen(path, "rb");
    if (!f)
        return out;
    Elf64_Ehdr eh;
    if (read_at(f, 0, &eh, sizeof eh) && std::memcmp(eh.e_ident, ELFMAG, SELFMAG) == 0 &&
        eh.e_ident[EI_CLASS] == ELFCLASS64 && eh.e_shentsize == sizeof(Elf64_Shdr) && eh.e_shnum > 0 &&
        eh.e_shstrndx < eh.e_shnum) {
        std::vector<Elf64_Shdr> sh(eh.e_shnum);
        Elf64_Shdr *strtab = nullptr;
        if (read_at(f, static_cast<long>(eh.e_shoff), sh.data(), sh.size() * sizeof(Elf64_Shdr)))
            strtab = &sh[eh.e_shstrndx];
        std::vector<char> names;
        if (strtab && strtab->sh_size < (1u << 24)) {
            names.resize(strtab->sh_size + 1, '\0');
            if (!read_at(f, static_cast<long>(strtab->sh_offset), names.data(), strtab->sh_size))
                names.clear();
        }
        const size_t wanted_len = std::strlen(wanted);
        for (const Elf64_Shdr &s : sh) {
            if (names.empty() || s.sh_name + wanted_len >= names.size() || s.sh_type == SHT_NOBITS)
                continue;
            if (std::strcmp(&names[s.sh_name], wanted) != 0 || s.sh_size > (1u << 20))
                continue;
            out.resize(s.sh_size);
            if (!read_at(f, static_cast<long>(s.sh_offset), out.data(), out.size()))
                out.clear();
            break;
        }
    }
    std::fclose(f);
    return out;
}

Image load_image() {
    Image img;
    img.bytes = read_section("/proc/self/exe", QMT_RSRC_SECTION);
    const std::vector<BYTE> &b = img.bytes;
    if (b.size() < 16 || std::memcmp(b.data(), QMT_RSRC_MAGIC, 8) != 0)
        return img;
    uint32_t count;
    std::memcpy(&count, b.data() + 8, sizeof count);
    if (count > (b.size() - 16) / sizeof(qmt_rsrc_entry))
        return img;
    img.present = true;
    for (uint32_t i = 0; i < count; ++i) {
        qmt_rsrc_entry e;
        std::memcpy(&e, b.data() + 16 + i * sizeof e, sizeof e);
        if (e.offset > b.size() || e.size > b.size() - e.offset)
            continue;
        img.resources.push_back({e.type, e.name, e.language, b.data() + e.offset, e.size});
    }
    return img;
}

// Built on first use and never freed: locked resources stay valid until the process ends.
const Image &image() {
    static const Image *img = new Image(load_image());
    return *img;
}

// A resource id: MAKEINTRESOURCE(n) or the text "#n".
bool resource_id(LPCSTR id, WORD *out) {
    if (IS_INTRESOURCE(id)) {
        *out = LOWORD(id);
        return true;
    }
    if (id == nullptr || id[0] != '#' || id[1] == '\0')
        return false;
    char *end = nullptr;
    const unsigned long n = std::strtoul(id + 1, &end, 10);
    if (*end != '\0' || n > 0xffff)
        return false;
    *out = static_cast<WORD>(n);
    return true;
}

bool main_module(HMODULE module) { return module == NULL || module == (HMODULE)&g_main_module; }

HRSRC find(HMODULE module, LPCSTR type, LPCSTR name, bool any_language, WORD language) {
    if (!main_module(module)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return NULL;
    }
    const Image &img = image();
    if (!img.present) {
        SetLastError(ERROR_RESOURCE_DATA_NOT_FOUND);
        return NULL;
    }
    WORD type_id = 0, name_id = 0;
    const bool type_ok = resource_id(type, &type_id);
    const bool name_ok = resource_id(name, &name_id);
    bool type_seen = false, name_seen = false;
    const Resource *best = nullptr;
    for (const Resource &r : img.resources) {
        if (!type_ok || r.type != type_id)
            continue;
        type_seen = true;
        if (!name_ok || r.name != name_id)
            continue;
        name_seen = true;
        if (any_language ? (!best || r.language == 0) : r.language == language)
            best = &r;
    }
    if (best)
        return (HRSRC)best;
    SetLastError(!type_seen ? ERROR_RESOURCE_TYPE_NOT_FOUND
                 : !name_seen ? ERROR_RESOURCE_NAME_NOT_FOUND
                              : ERROR_RESOURCE_LANG_NOT_FOUND);
    return NULL;
}

const Resource *resource(HMODULE module, HRSRC handle) {
    if (!main_module(module) || handle == NULL)
        return nullptr;
    for (const Resource &r : image().resources)
        if (handle == (HRSRC)&r)
            return &r;
    return nullptr;
}

} // namespace

extern "C" {

HMODULE WINAPI GetModuleHandleA(LPCSTR module_name) {
    QMTP_FAULT_POINT("GetModuleHandleA", NULL);
    if (module_name != nullptr) {
        SetLastError(kErrorModNotFound);
        return NULL;
    }
    return (HMODULE)&g_main_module;
}

HRSRC WINAPI FindResourceA(HMODULE module, LPCSTR name, LPCSTR type) {
    QMTP_FAULT_POINT("FindResourceA", NULL);
    return find(module, type, name, true, 0);
}

HRSRC WINAPI FindResourceExA(HMODULE module, LPCSTR type, LPCSTR name, WORD language) {
    QMTP_FAULT_POINT("FindResourceExA", NULL);
    return find(module, type, name, false, language);
}

HGLOBAL WINAPI LoadResource(HMODULE module, HRSRC handle) {
    QMTP_FAULT_POINT("LoadResource", NULL);
    const Resource *r = resource(module, handle);
    if (!r) {
        SetLastError(ERROR_INVALID_HANDLE);
        return NULL;
    }
    return (HGLOBAL)r->data;
}

LPVOID WINAPI LockResource(HGLOBAL loaded) {
    QMTP_FAULT_POINT("LockResource", NULL);
    return loaded;
}

DWORD WINAPI SizeofResource(HMODULE module, HRSRC handle) {
    QMTP_FAULT_POINT("SizeofResource", 0);
    const Resource *r = resource(module, handle);
    if (!r) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return r->size;
}

} // extern "C"
