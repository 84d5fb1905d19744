// Item layout of a dataset, as a log's layout entries carry it.
#ifndef FWUTIL_FWU_ITEMS_H
#define FWUTIL_FWU_ITEMS_H

#include <cstdint>
#include <string>
#include <vector>

constexpr int FWU_ITEM_NAME_MAX = 17;

struct fwu_item {
    std::string name;     // 1 to 17 bytes
    int32_t type = 0;     // type letter: E R I J K P Z X U
    int32_t size = 0;     // bytes of one element
    int32_t count = 1;    // number of elements
    int32_t item_aux = 0; // decimal places of P and Z items, else 0
    bool operator==(const fwu_item &) const = default;
};

struct fwu_layout {
    std::string dbname;
    std::string dsetname;
    std::vector<fwu_item> items;
    bool operator==(const fwu_layout &) const = default;
};

// Length in bytes of a record image: the elements of all items, one behind the
// other.  A sum above the most that any image can have is cut to that, so that no
// layout read from a file can overflow it.
constexpr int64_t FWU_IMAGE_LENGTH_MAX = int64_t{1} << 32;
int64_t fwu_layout_image_length(const fwu_layout &layout);

#endif
