#!/usr/bin/env bash
echo "make package: not available yet"
