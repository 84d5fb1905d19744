// Images of message records are used where they stand; those of text records are made.
#include "records/record.h"

#include "fwutil/fwu_time.h"

void rec_record_open(rec_record &record, const rec_form &form)
{
    rec_layouts_begin(record.layouts, form);
    rec_header_make(record.header, form);
}

const std::string &rec_record_name(const rec_record &record)
{
    return record.dataset->name;
}

// Asks once for records of one dataset that follow each other.
static bool is_wanted(rec_record &record)
{
    if (record.wants && record.asked != record.header.key) {
        record.asked = record.header.key;
        record.wanted = record.wants(rec_header_tells(record.header));
    }
    return record.wanted;
}

outcome rec_record_begin(rec_record &record, std::string_view head)
{
    std::string wrong;
    if (!rec_header_take(record.header, head, wrong))
        return outcome_bad(wrong);
    if (!is_wanted(record) && !record.layouts.form.dirty) {
        record.dataset = nullptr;
        return {};
    }
    // Most records are of the dataset of the one before; the log may have another layout.
    if (outcome done = rec_layouts_find(record.layouts, record.header, record.dataset); !done)
        return done;
    const size_t rows = record.header.op == CHANGE_UPDATE ? 2 : 1;
    record.length = record.header.length + rows * record.dataset->row_length;
    return {};
}

// Sets the image of a row.
static outcome take_row(const rec_record &record, std::vector<unsigned char> &image,
                        change_row &row, std::string_view bytes)
{
    std::string wrong;
    if (!record.layouts.form.text)
        row.image = reinterpret_cast<const unsigned char *>(bytes.data());
    else if (rec_dataset_image(*record.dataset, image, bytes, wrong))
        row.image = image.data();
    else
        return outcome_bad(rec_record_name(record) + ": " + wrong);
    return {};
}

outcome rec_record_take(rec_record &record, std::string_view bytes)
{
    if (bytes.size() != record.length)
        return outcome_bad("it has " + std::to_string(bytes.size()) + " bytes, where one of " +
                           rec_record_name(record) + " has " + std::to_string(record.length));
    const rec_header &header = record.header;
    change &made = record.made;
    made = {};
    made.op = header.op;
    made.dataset = record.dataset->dataset;
    made.record = header.record;
    made.session = &header.session;
    record.transaction = {};
    record.transaction.commit.time_us = header.second * FWU_US_PER_S;
    std::string_view rows = bytes.substr(header.length);
    const size_t length = record.dataset->row_length;
    if (header.op != CHANGE_CREATE) {
        if (outcome done = take_row(record, record.before, made.before, rows.substr(0, length));
            !done)
            return done;
        rows.remove_prefix(length);
    }
    return header.op == CHANGE_DELETE ? outcome()
                                      : take_row(record, record.after, made.after, rows);
}
