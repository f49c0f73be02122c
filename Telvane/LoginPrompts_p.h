// What the prompts of a keyboard-interactive login ask for. Internal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace telvane {
/// True when the prompt @p text asks for the account's password and for nothing else; see Questions.cpp.
bool asksForThePassword(std::string_view text, bool echo);
/// The prompts as a reason names them: each in quotes, without the spaces around it, joined by "and".
std::string quotedPrompts(const std::vector<std::string> &prompts);
} // namespace telvane
