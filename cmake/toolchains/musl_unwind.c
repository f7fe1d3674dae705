/* GNU's unwinder, as compilers for GNU's C library bring it, asks that library for the object at an address. musl tells of its objects
   through dl_iterate_phdr alone. Part of the C++ library that scripts/sysroot builds. */
#define _GNU_SOURCE
#include <link.h>
#include <stddef.h>
#include <stdint.h>

/* As <dlfcn.h> of GNU's C library has it. */
struct dl_find_object {
    unsigned long long flags;
    void *map_start;
    void *map_end;
    struct link_map *link_map;
    void *eh_frame;
    unsigned long long reserved[7];
};

struct search {
    uintptr_t address;
    struct dl_find_object *result;
};

static int look(struct dl_phdr_info *info, size_t size, void *data)
{
    (void)size;
    const struct search *search = data;
    const ElfW(Phdr) *holds = NULL;
    const ElfW(Phdr) *frames = NULL;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) *part = &info->dlpi_phdr[i];
        if (part->p_type == PT_LOAD && search->address - info->dlpi_addr - part->p_vaddr < part->p_memsz)
            holds = part;
        else if (part->p_type == PT_GNU_EH_FRAME)
            frames = part;
    }
    if (holds == NULL || frames == NULL)
        return 0;
    search->result->flags = 0;
    search->result->map_start = (void *)(info->dlpi_addr + holds->p_vaddr);
    search->result->map_end = (void *)(info->dlpi_addr + holds->p_vaddr + holds->p_memsz);
    search->result->link_map = NULL;
    search->result->eh_frame = (void *)(info->dlpi_addr + frames->p_vaddr);
    return 1;
}

int _dl_find_object(void *address, struct dl_find_object *result)
{
    struct search search = {(uintptr_t)address, result};
    return dl_iterate_phdr(look, &search) != 0 ? 0 : -1;
}
