// SPDX-License-Identifier: Apache-2.0
#include "metrics.h"

#include <map>

namespace tool {

namespace {

// The value of a label: backslash, quote and newline are escaped; a record has no newline.
std::string label_value(std::string_view text)
{
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        out += c;
    }
    return out;
}

std::string labels_of(const source_key &key, const source &of)
{
    return "host=\"" + label_value(key.host) + "\",pid=\"" + std::to_string(key.pid) + "\",app=\"" +
           label_value(printable(of.last.app)) + "\",queue=\"" +
           label_value(printable(of.last.queue)) + "\",queue_id=\"" + std::to_string(key.queue_id) +
           "\"";
}

// Microseconds as seconds, to the last digit.
std::string usec_as_seconds(std::uint64_t usec)
{
    std::string fraction = std::to_string(usec % 1'000'000);
    return std::to_string(usec / 1'000'000) + "." + std::string(6 - fraction.size(), '0') +
           fraction;
}

// Collects the samples of each metric, since a metric's samples stand together.
class metrics {
public:
    void add(const std::string &name, const std::string &labels, const std::string &value)
    {
        samples_[name] += name + "{" + labels + "} " + value + "\n";
    }

    void add_source(const source_key &key, const source &of)
    {
        std::string labels = labels_of(key, of);
        add("qrn_queue_up", labels, of.silent ? "0" : "1");
        add("qrn_queue_samples_lost_total", labels, std::to_string(of.lost));
        if (of.silent)
            return; // its last figures are not those of now
        for (std::size_t i = 0; i < columns.size(); ++i)
            if (of.last[i] != unknown)
                add_figure(i, labels, of.last[i]);
    }

    std::string text() const
    {
        static constexpr struct {
            const char *name;
            const char *type;
            const char *help;
        } all[] = {
            {"qrn_queue_up", "gauge", "1 while records of the queue come in time, else 0."},
            {"qrn_queue_samples_lost_total", "counter", "Records of the queue that were lost."},
            {"qrn_queue_samples_total", "counter", "Records that the queue's process sent."},
            {"qrn_queue_depth", "gauge", "Events queued now."},
            {"qrn_queue_warning", "gauge", "Thresholds exceeded now: 1 size, 2 delay, 3 both."},
            {"qrn_queue_size_warnings_total", "counter", "Size warnings raised."},
            {"qrn_queue_delay_warnings_total", "counter", "Delay warnings raised."},
            {"qrn_queue_queued", "gauge", "Events of one type queued now."},
            {"qrn_queue_events_total", "counter", "Events of one type accepted."},
            {"qrn_queue_service_seconds", "gauge", "Time that callbacks of one type took."},
            {"qrn_queue_age_seconds", "gauge", "Time that events waited."},
        };
        std::string out;
        for (const auto &metric : all) {
            auto found = samples_.find(metric.name);
            if (found != samples_.end())
                out += std::string("# HELP ") + metric.name + " " + metric.help + "\n# TYPE " +
                       metric.name + " " + metric.type + "\n" + found->second;
        }
        return out;
    }

private:
    void add_figure(std::size_t column, const std::string &labels, std::uint64_t value)
    {
        switch (column) {
        case at::seq:
            return add("qrn_queue_samples_total", labels, std::to_string(value));
        case at::depth:
            return add("qrn_queue_depth", labels, std::to_string(value));
        case at::warning:
            return add("qrn_queue_warning", labels, std::to_string(value));
        case at::size_warnings:
            return add("qrn_queue_size_warnings_total", labels, std::to_string(value));
        case at::delay_warnings:
            return add("qrn_queue_delay_warnings_total", labels, std::to_string(value));
        default:
            return add_statistic(column, labels, value);
        }
    }

    // "data_msgs_svc_min" becomes type="data_msgs",stat="min".
    void add_statistic(std::size_t column, const std::string &labels, std::uint64_t value)
    {
        std::string name(columns[column].name);
        std::size_t cut = name.rfind('_');
        std::string stem = name.substr(0, cut);
        std::string last = name.substr(cut + 1);
        switch (columns[column].what) {
        case kind::current: // the sum is the depth
            if (column != at::events)
                add("qrn_queue_queued", labels + ",type=\"" + name + "\"", std::to_string(value));
            break;
        case kind::total:
            add("qrn_queue_events_total", labels + ",type=\"" + stem + "\"", std::to_string(value));
            break;
        case kind::minimum:
        case kind::mean:
        case kind::maximum:
            if (stem == "age")
                add("qrn_queue_age_seconds", labels + ",stat=\"" + last + "\"",
                    usec_as_seconds(value));
            else
                add("qrn_queue_service_seconds",
                    labels + ",type=\"" + stem.substr(0, stem.size() - 4) + "\",stat=\"" + last +
                        "\"",
                    usec_as_seconds(value));
            break;
        default:
            break;
        }
    }

    std::map<std::string, std::string> samples_;
};

} // namespace

std::string metrics_text(const book &of)
{
    metrics out;
    for (const auto &[key, each] : of.sources())
        out.add_source(key, each);
    return out.text() +
           "# HELP qrnmon_malformed_total Datagrams that are no records.\n"
           "# TYPE qrnmon_malformed_total counter\nqrnmon_malformed_total " +
           std::to_string(of.bad()) + "\n";
}

} // namespace tool
