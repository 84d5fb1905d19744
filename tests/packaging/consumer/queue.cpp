// Writes a record to the message file named, takes it out and prints it.
#include <msgfile/tmf.h>

#include <iostream>
#include <memory>
#include <string_view>

int main(int, char **argv)
{
    tmf_handle *writer = tmf_fopen(argv[1], 0);
    if (tmf_fwrite(writer, "from C++", 8) != 0 || tmf_fclose(writer) != 0)
        return 1;
    const std::unique_ptr<tmf_handle, int (*)(tmf_handle *)> reader(
        tmf_fopen(argv[1], TMF_MODE_READ), tmf_fclose);
    char record[TMF_MAX_DATA];
    int n = 0;
    while ((n = tmf_fread(reader.get(), record, sizeof record, 0)) > 0)
        std::cout << std::string_view(record, static_cast<size_t>(n)) << '\n';
    return n == 0 ? 0 : 1;
}
