#include "coupler/binder/service/SubServiceEvents.h"

#include <utility>
#include <vector>

#include "utils/AutoLock.h"

namespace tavrin_binder {

SubServiceEvents::SubServiceEvents(const tavrin::tv_sp<tavrin::IService>& service)
    : mService(service) {}

void SubServiceEvents::registered(const std::string& name,
                                  const tavrin::tv_sp<ISubServiceProxy>& record) {
    post(name, Event{record, true});
}

void SubServiceEvents::removed(const std::string& name,
                               const tavrin::tv_sp<ISubServiceProxy>& record) {
    post(name, Event{record, false});
}

void SubServiceEvents::post(const std::string& name, Event event) {
    {
        tavrin::AutoLock hold(mLock);
        Queue& queue = mQueues[name];
        queue.pending.push_back(std::move(event));
        if (queue.telling) return;
        queue.telling = true;
    }
    Event current;
    while (next(name, &current)) tell(name, current);
}

bool SubServiceEvents::next(const std::string& name, Event* event) {
    // Released after the lock: an event may hold a record's last reference.
    std::vector<Event> done;
    done.push_back(std::move(*event));
    tavrin::AutoLock hold(mLock);
    Queue& queue = mQueues[name];
    while (!queue.pending.empty()) {
        *event = std::move(queue.pending.front());
        queue.pending.pop_front();
        if (worthTelling(queue, *event)) return true;
        done.push_back(std::move(*event));
    }
    queue.telling = false;
    if (queue.announced.empty() && queue.gone.empty()) mQueues.erase(name);
    return false;
}

// A record is registered and removed once each; whichever of the two comes
// first decides whether the service hears of it.
bool SubServiceEvents::worthTelling(Queue& queue, const Event& event) {
    const ISubServiceProxy* record = event.record.get();
    if (event.registration) {
        return queue.gone.erase(record) == 0 && queue.announced.insert(record).second;
    }
    if (queue.announced.erase(record) == 1) return true;
    queue.gone.insert(record);
    return false;
}

void SubServiceEvents::tell(std::string name, const Event& event) {
    if (event.registration) {
        mService->onSubServiceRegistered(name, event.record.get());
    } else {
        mService->onSubServiceRemoved(name);
    }
}

}  // namespace tavrin_binder
