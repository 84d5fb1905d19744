// The common area in memory.
#include "msgfile/tmf_common.h"

#include "msgfile/tmf.h"
#include "msgfile/tmu.h"

#include <cstdio>
#include <cstring>
#include <ctime>

void tmfc_init_tmc(tmf_common *common)
{
    *common = tmf_common{};
    common->byte_order_mark = TMF_BYTE_ORDER_MARK;
    memcpy(common->magic, TMF_MAGIC, sizeof(TMF_MAGIC));
    common->common_size = TMF_COMMON_SIZE;
    common->lock_area_size = TMF_LOCK_AREA_SIZE;
    common->data_start = TMF_DATA_START;
    common->lock_area_offset = TMF_LOCK_AREA_OFFSET;
    common->max_readers = TMF_MAX_READERS;
    common->max_writers = TMF_MAX_WRITERS;
    common->format_version = TMF_FORMAT_VERSION;
    common->writer_slot_size = TMF_SLOT_SIZE;
    common->reader_slot_size = TMF_SLOT_SIZE;
    memcpy(common->signal_addr, TMF_SIGNAL_ADDR, sizeof(TMF_SIGNAL_ADDR));
}

int tmfc_check(tmf_common *common)
{
    if (memcmp(common->magic, TMF_MAGIC, sizeof(TMF_MAGIC)) != 0)
        return TMF_ENOTMSG;
    if (common->byte_order_mark == TMF_BYTE_ORDER_MARK)
        return common->format_version == TMF_FORMAT_VERSION ? 0 : TMF_EFORMAT;
    if (common->byte_order_mark != TMF_BYTE_ORDER_OTHER)
        return TMF_EINCOMPATIBLE;
    // Kept: the version of an area in the other byte order is not looked at.
    tmfc_reverse_common_byte_order(common);
    return 0;
}

int tmfc_recheck(const tmf_common *common)
{
    if (memcmp(common->magic, TMF_MAGIC, sizeof(TMF_MAGIC)) != 0)
        return TMF_ENOTMSG;
    return common->byte_order_mark == TMF_BYTE_ORDER_MARK ? 0 : TMF_EINCOMPATIBLE;
}

bool tmfc_mend_fixed_numbers(tmf_common *common)
{
    bool mended = false;
    for (const tmf_fixed_number &number : TMF_FIXED_NUMBERS) {
        mended = mended || number.in(*common) != number.value;
        number.put_right(*common);
    }
    return mended;
}

void tmfc_reverse_common_byte_order(tmf_common *common)
{
    unsigned char *bytes = reinterpret_cast<unsigned char *>(common);
    for (const tmf_word &word : TMF_HOST_WORDS)
        tmu_reverse(bytes + word.at, word.width);
    tmfc_set_dirty(common, 1);
}

void tmfc_set_dirty(tmf_common *common, int on)
{
    if (on != 0)
        common->flags = static_cast<uint16_t>(common->flags | TMF_FLAG_DIRTY);
    else
        common->flags = static_cast<uint16_t>(common->flags & ~TMF_FLAG_DIRTY);
}

bool tmfc_is_dirty(const tmf_common *common)
{
    return (common->flags & TMF_FLAG_DIRTY) != 0;
}

void tmfc_first_user_setup(tmf_common *common)
{
    char digits[2 * sizeof(unsigned long) + 1];
    (void)snprintf(digits, sizeof(digits), "%08lx", static_cast<unsigned long>(time(nullptr)));
    memcpy(common->file_stamp, digits, TMF_STAMP_SIZE);
    tmfc_set_dirty(common, 1);
}

int tmfc_reader_slots(const tmf_common *common)
{
    return tmu_within(common->max_readers, 0, TMF_MAX_READERS);
}

int tmfc_writer_slots(const tmf_common *common)
{
    return tmu_within(common->max_writers, 0, TMF_MAX_WRITERS);
}

int32_t tmfc_calc_user_lock_offset(const tmf_common *common, int id, bool is_reader)
{
    const int64_t slot = is_reader ? id : int64_t{common->max_readers} + id;
    // Kept: a writer's slot, too, is found by the size of a reader's.
    return static_cast<int32_t>(common->lock_area_offset + slot * common->reader_slot_size);
}

uint16_t tmc_get_signal_port(const tmf_common *common, int i)
{
    uint16_t port = 0;
    if (i >= 0 && i < TMF_MAX_READERS)
        port = get_be16(common->signal_ports[i]);
    return port != 0 ? port : static_cast<uint16_t>(TMF_PORT_BASE + i);
}

void tmc_set_signal_port(tmf_common *common, int i, uint16_t port)
{
    put_be16(common->signal_ports[i], port);
}

uint16_t tmc_new_signal_port(const tmf_common *common, uint16_t port)
{
    return static_cast<uint16_t>(((port + common->max_readers) & TMF_PORT_MASK) | TMF_PORT_BASE);
}

void tmc_add_waitlist(tmf_common *common, int id, uint16_t port)
{
    if (tmu_get_bit(common->wait_list, id) == 0)
        tmu_set_bit(common->wait_list, id);
    else if (get_be16(common->signal_ports[id]) == port)
        return;
    tmc_set_signal_port(common, id, port);
    tmfc_set_dirty(common, 1);
}

void tmc_remove_waitlist(tmf_common *common, int id)
{
    tmu_clear_bit(common->wait_list, id);
    tmfc_set_dirty(common, 1);
}

bool tmfc_need_to_wait(const tmf_common *common, int flags)
{
    return common->record_count == 0 && (common->num_writers > 0 || (flags & TMF_READ_WAIT) != 0);
}
