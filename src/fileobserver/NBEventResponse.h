// What a file observer does with an event: call a method on a weakly held target, or call a block.
//
// The target is held through a std::weak_ptr, so registering for events never keeps an object alive: once
// the target is destroyed, `target()` is null and the file observer that owns this response stops its
// stream at the next event without calling anything.
//
// Note on blocks: a file observer decides whether to deliver by looking at the target alone. A response
// made only with a block has no target, so its file observer tears its stream down at the first event
// instead of calling the block. The library only uses target-and-method responses; the block form is
// callable directly through invokeWithFileSystemEvent.
#pragma once

#include "fileobserver/NBFileSystemEvent.h"

#include <functional>
#include <memory>
#include <type_traits>

class NBEventResponse {
public:
    // A method of the (type-erased) target: receives the live target and the event.
    using Selector = std::function<void(void* target, const NBFileSystemEvent& event)>;
    using Block = std::function<void(const NBFileSystemEvent& event)>;

    // Calls `(target.*method)(event)` while the target lives.
    template <typename Target>
    static std::shared_ptr<NBEventResponse>
    eventResponseWithTarget(const std::shared_ptr<Target>& target,
                            void (Target::*method)(const NBFileSystemEvent&)) {
        if (!method)
            return eventResponseWithTarget(std::weak_ptr<void>(target), Selector());
        return eventResponseWithTarget(std::weak_ptr<void>(target),
                                       [method](void* object, const NBFileSystemEvent& e) {
                                           (static_cast<Target*>(object)->*method)(e);
                                       });
    }
    // Calls `function(*target, event)` while the target lives (a lambda or std::function over the target).
    template <typename Target, typename Function>
    requires(std::is_invocable_v<Function&, Target&, const NBFileSystemEvent&> &&
             !std::is_member_function_pointer_v<Function>) static std::
        shared_ptr<NBEventResponse> eventResponseWithTarget(const std::shared_ptr<Target>& target,
                                                            Function function) {
        return eventResponseWithTarget(
            std::weak_ptr<void>(target),
            [function = std::move(function)](void* object, const NBFileSystemEvent& e) mutable {
                function(*static_cast<Target*>(object), e);
            });
    }
    static std::shared_ptr<NBEventResponse> eventResponseWithTarget(std::weak_ptr<void> target,
                                                                    Selector selector);
    static std::shared_ptr<NBEventResponse> eventResponseWithBlock(Block block);

    // The target while it lives, else null (also null for a block response).
    std::shared_ptr<void> target() const { return target_.lock(); }
    bool hasSelector() const { return static_cast<bool>(selector_); }
    bool hasBlock() const { return static_cast<bool>(block_); }

    // With a live target and a selector, calls the selector on the target; otherwise calls the block, if any.
    void invokeWithFileSystemEvent(const NBFileSystemEvent& event) const;

private:
    std::weak_ptr<void> target_;
    Selector selector_;
    Block block_;
};
