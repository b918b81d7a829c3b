# What the lines of docs/install.md find where they are typed.
cp "$ROOT"/tests/outside/consumer/application.cpp .
mkdir -p bin lib
