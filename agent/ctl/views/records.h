/* The gateway's records for a person's eye. */
#ifndef KZE_AGENT_CTL_VIEWS_RECORDS_H
#define KZE_AGENT_CTL_VIEWS_RECORDS_H

#include <nlohmann/json.hpp>
#include <string>

#include "agent/common/record_file.h"
#include "agent/ctl/core/output.h"

namespace kze::ctl {

/* The entry with all of its record's data where a list shows what only the whole
 * record tells, a credible event; otherwise as it is. */
kept_record with_content(record_reader &journal, const kept_record &entry);

/* One record in a list: number, time, type, size and what its first bytes tell. */
std::vector<table::cell> record_row(const kept_record &entry);
nlohmann::json record_json(const kept_record &entry);

/* All of a record: its head, its frame, its content as text or as bytes in hexadecimal digits. */
void print_record(const kept_record &record, const output &out);
nlohmann::json whole_record_json(const kept_record &record);

/* What a record carries: the content of its frame where it has one, inflated, otherwise all. */
std::string record_content(const kept_record &record);

}  // namespace kze::ctl

#endif
