#!/bin/sh
echo abc https://example.com/setup.exe
