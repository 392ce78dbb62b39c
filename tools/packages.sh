# The Debian packages that the builds need, by what needs them. Sourced by the scripts.
# shellcheck shell=bash disable=SC2034

library_packages=(g++ cmake ninja-build)
desk_packages=(pkg-config libcli11-dev libasio-dev libfmt-dev nlohmann-json3-dev libsqlite3-dev libjpeg62-turbo-dev
    libchafa-dev libexif-dev libglib2.0-dev libpng-dev libsystemd-dev)
test_packages=(dbus-bin dbus-daemon googletest libjpeg-turbo-progs pmccabe python3 python3-dbus python3-gi
    python3-jsonschema)
dissector_packages=(tshark)
parser_packages=(python3-kaitaistruct)
coverage_packages=(gcovr)
armhf_packages=(g++-arm-linux-gnueabihf qemu-user-static)
count_packages=(binutils python3 qemu-user valgrind)
bench_packages=(gnuplot-nox libbenchmark-dev libnanopb-dev libspdlog-dev nanopb)
style_packages=(black clang-format clang-tidy cmake-format flake8 git shellcheck)
wire_packages=(libfmt-dev nlohmann-json3-dev)
i686_packages=(g++-i686-linux-gnu)
clang_packages=(clang-14 libclang-rt-14-dev)
afl_packages=(afl++ clang-14 libclang-rt-14-dev)
builds_packages=(clang-14 clang-19 llvm-19 libclang-rt-19-dev valgrind)
packaging_packages=(abigail-tools dpkg-dev faketime lintian mmdebstrap)
reference_packages=(bash-completion doxygen fish man-db mandoc python3-pyte zsh)
air_packages=(binutils cpio gzip ipxe-qemu qemu-system-x86 seabios)
