// What a host must not name: the services of the manager's object graph.
// Compiled against the public headers alone, each line marked "internal"
// must be an error.
#include <quarrystone/QSManager.h>

void reachInside(qs::QSManager& manager) {
  (void)manager.platform();                        // internal
  (void)manager.settings();                        // internal
  (void)manager.storage();                         // internal
  (void)manager.utils();                           // internal
  (void)manager.uuid();                            // internal
  (void)manager.networkManager();                  // internal
  (void)manager.managerHelper();                   // internal
  (void)manager.impl_;                             // internal
  (void)qs::QSManagerInternals::storage(manager);  // internal
}
