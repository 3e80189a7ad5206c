// SPDX-License-Identifier: Apache-2.0
/** The error that ends a verb early: a message for the user, with details. */
#ifndef TOOL_FAILURE_H
#define TOOL_FAILURE_H

#include "console/exit_code.h"

#include <stdexcept>
#include <string>
#include <utility>

/**
 * Sentences are lower case without a full stop and name the thing and the reason. `hint` names the
 * remedy, `state` describes the state of the board; both may be empty.
 */
class Failure : public std::runtime_error {
public:
    Failure(ExitCode failure_code, const std::string& sentence, std::string what_to_do = {}, std::string state_now = {})
        : std::runtime_error(sentence), code(failure_code), hint(std::move(what_to_do)), state(std::move(state_now)) {
    }

    ExitCode code;
    std::string hint;
    std::string state;
};

#endif
