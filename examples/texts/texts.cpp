// Texts: splitting, searching, sorting and formatting. It prints:
//
//     3 fields, the second is 'Zürich'
//     path 'logs/', name 'app.tar', extension 'gz'
//     apple, fig, pear
//     255 is ff
//     the 'ü' is at byte 1
#include "qor/qor.h"

int main() {
    const qorString line("8001, Zürich ,ZH");
    qorStringArray fields;
    line.TokeniseAtByte(',', fields);
    qorString city(fields[1]);
    city.TrimBoth();
    fixed_fprintf(stdout, "%u fields, the second is '%s'\n", fields.GetCount(), city.Text());

    qorString path;
    qorString name;
    qorString extension;
    qorString("logs/app.tar.gz").FileSplitName(path, name, extension);
    fixed_fprintf(stdout, "path '%s', name '%s', extension '%s'\n", path.Text(), name.Text(), extension.Text());

    qorStringArray fruit;
    for (const char* each : {"pear", "apple", "fig", "apple"})
        fruit.AddUnique(each);
    fruit.Sort(true);
    qorString all;
    for (const qorString& each : fruit) {
        if (!all.IsEmpty())
            all.Append(", ");
        all.Append(each);
    }
    all.Put(stdout, true);

    qorString number;
    number.FormatUnsigned(255, 16);
    fixed_fprintf(stdout, "255 is %s\n", number.Text());
    fixed_fprintf(stdout, "the 'ü' is at byte %d\n", city.FindChar(0xfc));
}
