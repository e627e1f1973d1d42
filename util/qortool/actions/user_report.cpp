#include "user_report.h"

void print_user_report(const zetSmartPointer<IQORUserToken>& token) {
    qorString text;
    token->GetUserName(text);
    fixed_fprintf(stdout, "Username            = [%s]\n", text.Text());
    token->GetDescription(text);
    fixed_fprintf(stdout, "UserDescription     = [%s]\n", text.Text());
    fixed_fprintf(stdout, "Is Super User       = [%s]\n", token->IsSuperUser() ? "true" : "false");
    fixed_fprintf(stdout, "Auth Level          = [%d]\n", token->GetAuthLevel());

    qorStringArray groups;
    token->GetGroups(groups);
    groups.Sort(true);
    if (groups.IsEmpty())
        fixed_fprintf(stdout, "Groups              = (no groups found)\n");
    for (uint32 i = 0; i < groups.GetCount(); ++i)
        fixed_fprintf(stdout, i == 0 ? "Groups              = [%s]\n" : "                    = [%s]\n", groups[i]);
}
