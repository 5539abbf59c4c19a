// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The processor base: its link to the next processor of the chain.
#include "auth_engine/IAuthProcessor.h"

#include <utility>

namespace auth_engine {

void IAuthProcessor::setNext(std::shared_ptr<IAuthProcessor> nextProcessor) {
    next = std::move(nextProcessor);
}

std::shared_ptr<IAuthProcessor> IAuthProcessor::getNext() const {
    return next;
}

}  // namespace auth_engine
