#include "StartupPages.h"

#include <cstdint>

#include <elf.h>
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

bool hasTextRelocations(const dl_phdr_info& object)
{
    for (int i = 0; i < object.dlpi_phnum; ++i) {
        if (object.dlpi_phdr[i].p_type != PT_DYNAMIC)
            continue;
        const auto* entry = reinterpret_cast<const ElfW(Dyn)*>(object.dlpi_addr + object.dlpi_phdr[i].p_vaddr);
        for (; entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_TEXTREL || (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL)))
                return true;
        }
    }
    return false;
}

// Segments that nobody may write are as their file has them, so the kernel can read them again.
void releaseSegment(std::uintptr_t begin, std::uintptr_t size)
{
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = begin & ~(page - 1);
    const std::uintptr_t end = (begin + size) & ~(page - 1); // The last page may belong to the next segment too.
    if (end > first)
        madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
}

int releaseObject(dl_phdr_info* object, size_t, void*)
{
    const bool hasFile = object->dlpi_name && object->dlpi_name[0] == '/';
    if (!hasFile || hasTextRelocations(*object))
        return 0;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && !(segment.p_flags & PF_W))
            releaseSegment(object->dlpi_addr + segment.p_vaddr, segment.p_filesz);
    }
    return 0;
}

} // namespace

void releaseStartupPages()
{
    dl_iterate_phdr(releaseObject, nullptr);
    malloc_trim(0);
}
