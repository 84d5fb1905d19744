// The narrowest statement counts.
#include "feed/policy.h"

fwu_policy feed_policy_of(const fwu_config &config, const std::string &table, fwu_policy otherwise)
{
    for (const fwu_table_rule &rule : config.table_rules)
        if (rule.table == table && rule.policy != FWU_POLICY_UNSAID)
            return rule.policy;
    return config.policy == FWU_POLICY_UNSAID ? otherwise : config.policy;
}

fwu_policy feed_policy_of(const fwu_config &config, const std::string &table,
                          const std::string &column, fwu_policy otherwise)
{
    for (const fwu_column &said : fwu_columns_of(config, table))
        if (said.column == column && said.policy != FWU_POLICY_UNSAID)
            return said.policy;
    return feed_policy_of(config, table, otherwise);
}

fwu_policy feed_server_policy(const fwu_config &config)
{
    return fwu_writing_describes(config) ? FWU_POLICY_ERROR : FWU_POLICY_MARK;
}
