#!/usr/bin/env bash
echo "make screenshots: not available yet"
