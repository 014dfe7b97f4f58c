// Who serves what in the runtime directory, asked of the services themselves.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_FILE_LISTING_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_FILE_LISTING_H

#include "platform/host/common/Status.h"
#include "platform/host/iam/HostService.h"

namespace host_platform::iam {

// As IAMHostList.
Status ListResources(IAMHostVisitor visit, void* context);

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_FILE_LISTING_H
