// Calling an observer's method, or a block, with a file-system event.
#include "fileobserver/NBEventResponse.h"

std::shared_ptr<NBEventResponse> NBEventResponse::eventResponseWithTarget(std::weak_ptr<void> target,
                                                                          Selector selector) {
    auto response = std::make_shared<NBEventResponse>();
    response->target_ = std::move(target);
    response->selector_ = std::move(selector);
    return response;
}

std::shared_ptr<NBEventResponse> NBEventResponse::eventResponseWithBlock(Block block) {
    auto response = std::make_shared<NBEventResponse>();
    response->block_ = std::move(block);
    return response;
}

void NBEventResponse::invokeWithFileSystemEvent(const NBFileSystemEvent& event) const {
    if (selector_) {
        // The strong reference keeps the target alive for the whole call, even if its last owner lets go
        // of it on another thread meanwhile.
        if (std::shared_ptr<void> object = target_.lock()) {
            selector_(object.get(), event);
            return;
        }
    }
    if (block_)
        block_(event);
}
