#!/usr/bin/env bash
echo "make bench: not available yet"
