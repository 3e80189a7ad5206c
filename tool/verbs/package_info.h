// SPDX-License-Identifier: Apache-2.0
/** tessera package info: what a package is, and whether anything is wrong with it, on any machine. */
#ifndef TOOL_PACKAGE_INFO_H
#define TOOL_PACKAGE_INFO_H

#include "package/package_check.h"
#include "verbs/verb.h"

#include <string>

/** Shows everything first, then throws Failure when the package is damaged or its signers are not accepted. */
void show_package_info(const Context& context, const std::string& file, const TrustOptions& trust);

#endif
