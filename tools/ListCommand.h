// Which resources are served on this machine, by whom, and who reads them.
#ifndef REPORT_EVENT_TOOLS_LIST_COMMAND_H
#define REPORT_EVENT_TOOLS_LIST_COMMAND_H

namespace tools {

// Prints it on standard output, a row or a JSON object for each resource. Returns the exit code.
int ListResources(bool json);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_LIST_COMMAND_H
