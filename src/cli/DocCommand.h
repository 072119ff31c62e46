// `quillon doc`: plumbing for scripting and inspecting experiment and protocol packages (see DocCommand.cpp).
#pragma once

namespace CLI {
class App;
}

void addDocCommand(CLI::App& app);
