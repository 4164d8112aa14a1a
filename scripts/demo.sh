#!/usr/bin/env bash
echo "make demo: not available yet"
