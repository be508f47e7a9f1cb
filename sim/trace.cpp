#include "trace.h"

namespace torvex::sim {

void Trace::Scope(std::string name) {
    std::lock_guard<std::mutex> lock(mutex_);
    scope_ = std::move(name);
}

void Trace::Add(Event event) {
    std::lock_guard<std::mutex> lock(mutex_);
    event.scope = scope_;
    events_.push_back(std::move(event));
}

std::vector<Event> Trace::Events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

size_t Trace::Size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_.size();
}

void Trace::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
}

std::vector<std::string> Trace::Calls(const std::string& source) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> calls;
    for (const Event& event : events_)
        if (event.source == source)
            calls.push_back(event.call + (event.detail.empty() ? "" : " [" + event.detail + "]") + " -> " + event.outcome);
    return calls;
}

std::string Trace::Reason(size_t since) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = events_.size(); i > since; --i) {
        const Event& event = events_[i - 1];
        if (event.failed && event.source != "debug") return event.source + " " + event.call + ": " + event.outcome;
    }
    return "";
}

std::string Trace::Render() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string out;
    const std::string* scope = nullptr;
    for (const Event& event : events_) {
        if (scope == nullptr || *scope != event.scope) {
            scope = &event.scope;
            out += "== " + (event.scope.empty() ? std::string("(no class)") : event.scope) + " ==\n";
        }
        out += "  " + event.source + std::string(event.source.size() < 9 ? 9 - event.source.size() : 1, ' ') +
               event.call + (event.detail.empty() ? "" : " [" + event.detail + "]") + " -> " + event.outcome + "\n";
    }
    return out;
}

}  // namespace torvex::sim
