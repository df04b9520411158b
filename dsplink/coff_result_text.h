#pragma once
// Plain-language reasons for the COFF reader's result codes, for messages
// that tell an operator why an image will not boot.
#include <string>

// "the file is empty" for 142 and the like; "" for 0, a generic text for
// codes the reader does not answer.
std::wstring coffResultText(int result);
