/* Host stand-in of the checker's administration library (placeholder). */
#include "pellan-admin.h"

#include <errno.h>

int pellan_admin_initialize(struct pellan_admin **admin)
{
    *admin = 0;
    return -ENOSYS;
}

int pellan_admin_set_policies(struct pellan_admin *admin,
                              const struct pellan_admin_policy *const *policies)
{
    (void)admin; (void)policies;
    return -ENOSYS;
}

int pellan_admin_finish(struct pellan_admin *admin)
{
    (void)admin;
    return 0;
}
