#include "ctl/metrics/Table.h"

#include <algorithm>
#include <iterator>

namespace corv::ctl {
namespace {

constexpr auto kGauge = "gauge";
constexpr auto kCounter = "counter";

// A time of 0 says "never", so that a rule about its age fires without a rule of its own for what is not there.
constexpr Metric kMetrics[] = {
    {"corvane_agent_up", kGauge, "", "1 if the agent answers or is at work on a request, 0 if not."},
    {"corvane_agent_info", kGauge, "version", "Always 1; the version of the agent that answered."},
    {"corvane_agent_request_start_timestamp_seconds", kGauge, "command",
     "When the request began that the agent is at work on; missing where there is none."},
    {"corvane_agent_requests_total", kCounter, "command result",
     "Requests that the agent has carried out, by command and result (ok, failed), as its journal tells."},
    {"corvane_agent_unknown_commands_total", kCounter, "", "Requests with a command that the agent does not know."},
    {"corvane_agent_refused_connections_total", kCounter, "",
     "Connections that the agent refused, of users who may not connect or had too many."},
    {"corvane_agent_requests_counted_since_timestamp_seconds", kGauge, "",
     "Since when the agent's requests are counted."},

    {"corvane_accounts", kGauge, "state", "Hosting accounts by state (active, suspended)."},
    {"corvane_account_used_bytes", kGauge, "account",
     "Disk space that an account uses, as the quotas count it; missing where quotas are off."},
    {"corvane_account_limit_bytes", kGauge, "account", "The limit of an account's disk space, where it has one."},
    {"corvane_account_backup_bytes", kGauge, "account part",
     "Size of what the newest backup holds of an account, packed, by part (home, database)."},

    {"corvane_disk_files", kGauge, "mount",
     "Files that a file system of homes, databases or logs can hold, by its mount point; missing where it has no such "
     "limit."},
    {"corvane_disk_free_files", kGauge, "mount", "For how many more files one of these has room."},

    {"corvane_backups", kGauge, "", "Finished backups that are kept on this server."},
    {"corvane_backups_size_bytes", kGauge, "", "Size of all finished backups that are kept on this server."},
    {"corvane_backup_running", kGauge, "", "1 while a backup is being made."},
    {"corvane_backup_last_completion_timestamp_seconds", kGauge, "",
     "When the newest backup was finished; 0 if never."},
    {"corvane_backup_last_duration_seconds", kGauge, "", "How long the newest backup took."},
    {"corvane_backup_last_size_bytes", kGauge, "", "Size of the newest backup."},
    {"corvane_backup_last_problems", kGauge, "",
     "What the newest backup could not save; files that changed while they were read are none."},
    {"corvane_backup_last_verification_timestamp_seconds", kGauge, "",
     "When a backup was last read to its end to see whether it is whole; 0 if never."},
    {"corvane_backup_last_verification_faults", kGauge, "", "Damaged files that were found then."},
    {"corvane_backup_last_proof_timestamp_seconds", kGauge, "",
     "When a dump was last restored to prove that it can be; 0 if never."},
    {"corvane_backup_destination_free_bytes", kGauge, "", "Room that is left where backups are made."},

    {"corvane_offsite_configured", kGauge, "",
     "1 where the settings name a place for copies of the backups; the other off-site metrics are missing without."},
    {"corvane_offsite_last_copy_timestamp_seconds", kGauge, "",
     "When a backup was last copied off-site whole; 0 if never."},
    {"corvane_offsite_last_run_timestamp_seconds", kGauge, "", "When copying off-site last ended; 0 if never."},
    {"corvane_offsite_last_run_duration_seconds", kGauge, "", "How long that took."},
    {"corvane_offsite_last_run_problems", kGauge, "", "What went wrong with that."},
    {"corvane_offsite_last_check_timestamp_seconds", kGauge, "",
     "When a part of what is off-site was last read back; 0 if never."},
    {"corvane_offsite_last_check_failed", kGauge, "", "1 if something was wrong with what was read back."},
    {"corvane_offsite_last_drill_timestamp_seconds", kGauge, "",
     "When an account was last restored from off-site as a drill; 0 if never."},
    {"corvane_offsite_last_drill_failed", kGauge, "", "1 if that drill failed."},

    {"corvane_https_sites", kGauge, "stage",
     "Accounts' sites by what HTTPS is for them (off, left-out, waiting, served, ending, expired); missing where it is "
     "off."},
    {"corvane_certificate_expiry_timestamp_seconds", kGauge, "account",
     "When the certificate of an account's site ends; missing where it has none."},

    {"corvane_service_active", kGauge, "service",
     "1 if a service runs, of those that are monitored and those that accounts need."},
    {"corvane_unit_failure_timestamp_seconds", kGauge, "unit",
     "When a unit of the panel's failed that has not succeeded since; missing where there is none."},
    {"corvane_firewall_active", kGauge, "", "1 if the firewall is on."},
    {"corvane_fail2ban_running", kGauge, "", "1 if fail2ban answers."},
    {"corvane_banned_addresses", kGauge, "jail", "Addresses that are banned now, by fail2ban's jail."},
    {"corvane_bans_total", kCounter, "jail", "Bans since fail2ban was started, by its jail."},

    {"corvane_updates_pending", kGauge, "kind", "Updates that are not installed, by kind (security, other)."},
    {"corvane_updates_automatic", kGauge, "", "1 if security updates are installed automatically."},
    {"corvane_updates_last_check_timestamp_seconds", kGauge, "",
     "When the package lists were last read; 0 where that is not known."},
    {"corvane_restart_required", kGauge, "", "1 if an installed update waits for a restart of the server."},

    {"corvane_doctor_findings", kGauge, "check level",
     "What corvctl doctor found, by its check and level (fault, note); sizes of homes are not measured for it."},

    {"corvane_collector_success", kGauge, "collector",
     "1 if all could be collected at the last attempt; if 0, its metrics are old or missing."},
    {"corvane_collector_last_success_timestamp_seconds", kGauge, "collector",
     "When all could last be collected; 0 if never."},
    {"corvane_collector_duration_seconds", kGauge, "collector", "How long the last attempt took."},
};

} // namespace

std::span<const Metric> allMetrics()
{
    return kMetrics;
}

const Metric *metricNamed(QLatin1StringView name)
{
    const auto *found = std::find_if(std::begin(kMetrics), std::end(kMetrics),
                                     [name](const Metric &metric) { return name == QLatin1StringView(metric.name); });
    return found == std::end(kMetrics) ? nullptr : found;
}

} // namespace corv::ctl
